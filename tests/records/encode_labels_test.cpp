// EncodeLabels: text to the labels of a name, or to the strings of a TXT record.
#include <gtest/gtest.h>

#include <string>

#include "records/encode.h"
#include "tests/support/bytes.h"

namespace {

struct LabelsRow {
  const char* behaviour;
  char separator;
  int32_t maxLabel;
  std::string text;
  const char* wire;
};

class EncodeLabelsTest : public testing::TestWithParam<LabelsRow> {};

const LabelsRow kLabelsRows[] = {
    {"EmptyTextIsTheRootAlone", '.', 64, "", "00"},
    {"TwoLabels", '.', 64, "host.local", "04 'host' 05 'local' 00"},
    {"EmptyLabelAndTrailingDotVanish", '.', 64, "a..b.", "01 'a' 01 'b' 00"},
    {"LeadingDotVanishes", '.', 64, ".a", "01 'a' 00"},
    {"DotsAloneAreTheRoot", '.', 64, "...", "00"},
    {"SixtyThreeCharacters", '.', 64, std::string(63, 'a') + ".b", "3F 63*'a' 01 'b' 00"},
    {"SixtyFourCharactersAndADotKeepAll", '.', 64, std::string(64, 'a') + ".b",
     "40 64*'a' 01 'b' 00"},
    {"SixtyFourCharactersAtTheEnd", '.', 64, std::string(64, 'a'), "40 64*'a' 00"},
    {"SixtyFifthCharacterIsDropped", '.', 64, std::string(64, 'a') + "x", "40 64*'a' 00"},
    {"SixtyFifthCharacterIsDroppedBeforeADot", '.', 64, std::string(64, 'a') + "x.b",
     "40 64*'a' 01 'b' 00"},
    {"SeventyCharactersGiveTwoLabels", '.', 64, std::string(64, 'a') + "xbcdef",
     "40 64*'a' 05 'bcdef' 00"},
    {"DroppedDotIsNotASeparator", '.', 64, std::string(64, 'a') + "..b", "40 64*'a' 01 'b' 00"},
    {"TwoCutLabelsDropOneEach", '.', 64, std::string(64, 'a') + "x" + std::string(64, 'b') + "yc",
     "40 64*'a' 40 64*'b' 01 'c' 00"},
    {"LineFeedIsPartOfANameLabel", '.', 64, "a\nb.c", "03 'a' 0A 'b' 01 'c' 00"},
    {"BytesAreCopiedAsTheyAre", '.', 64, "\xC3\xA4.\xFF", "02 C3 A4 01 FF 00"},
    {"TxtStringsEndAtLineFeeds", '\n', 128, "a\n\nbc", "01 'a' 02 'bc' 00"},
    {"DotIsPartOfATxtString", '\n', 128, "a.b", "03 'a.b' 00"},
    {"TxtStringOf128", '\n', 128, std::string(128, 'a') + "\nb", "80 128*'a' 01 'b' 00"},
    {"TxtLineOf129LosesItsLast", '\n', 128, std::string(128, 'a') + "x", "80 128*'a' 00"},
    {"TxtLineOf130GivesTwoStrings", '\n', 128, std::string(128, 'a') + "xb",
     "80 128*'a' 01 'b' 00"},
    {"EveryOtherCharacterWithAMaximumOfOne", '.', 1, "abcde", "01 'a' 01 'c' 01 'e' 00"},
};

INSTANTIATE_TEST_SUITE_P(Texts, EncodeLabelsTest, testing::ValuesIn(kLabelsRows),
                         [](const auto& row) { return std::string(row.param.behaviour); });

TEST_P(EncodeLabelsTest, WritesAndReturnsThePositionAfter) {
  const LabelsRow& row = GetParam();
  const Bytes expected = Wire(row.wire);
  ExactBytes buffer(expected.size());
  EXPECT_EQ(EncodeLabels(buffer.Data(), static_cast<int32_t>(buffer.Size()), 0, row.separator,
                         row.text, row.maxLabel),
            static_cast<int32_t>(expected.size()));
  EXPECT_EQ(Hex(buffer.View()), Hex(expected));
}

TEST_P(EncodeLabelsTest, BeginsAtThePositionAndLeavesTheRestAlone) {
  const LabelsRow& row = GetParam();
  const Bytes expected = Wire(row.wire);
  Bytes buffer(expected.size() + 7, 0xEE);
  EXPECT_EQ(EncodeLabels(buffer.data(), static_cast<int32_t>(buffer.size()), 5, row.separator,
                         row.text, row.maxLabel),
            static_cast<int32_t>(expected.size() + 5));
  Bytes whole(5, 0xEE);
  whole.insert(whole.end(), expected.begin(), expected.end());
  whole.insert(whole.end(), {0xEE, 0xEE});
  EXPECT_EQ(Hex(buffer), Hex(whole));
}

TEST_P(EncodeLabelsTest, NeverWritesAtOrBeyondTheCapacity) {
  const LabelsRow& row = GetParam();
  const size_t size = Wire(row.wire).size();
  for (size_t capacity = 0; capacity <= size; ++capacity) {
    ExactBytes buffer(capacity);
    EncodeLabels(buffer.Data(), static_cast<int32_t>(capacity), 0, row.separator, row.text,
                 row.maxLabel);
    Bytes guarded(capacity + 300, 0xEE);
    EncodeLabels(guarded.data(), static_cast<int32_t>(capacity), 0, row.separator, row.text,
                 row.maxLabel);
    EXPECT_EQ(Bytes(guarded.begin() + static_cast<std::ptrdiff_t>(capacity), guarded.end()),
              Bytes(300, 0xEE))
        << capacity;
  }
}

struct CapacityRow {
  int32_t capacity;
  const char* wire;
  int32_t end;
};

class EncodeLabelsCapacityTest : public testing::TestWithParam<CapacityRow> {};

// "ab.c": a length byte that does not fit is not counted, nor is the root; characters always are.
INSTANTIATE_TEST_SUITE_P(Capacities, EncodeLabelsCapacityTest,
                         testing::ValuesIn(std::initializer_list<CapacityRow>{
                             {7, "02 'ab' 01 'c' 00 EE", 6},
                             {6, "02 'ab' 01 'c' 00", 6},
                             {5, "02 'ab' 01 'c'", 5},
                             {4, "02 'ab' 01", 5},
                             {3, "02 'ab'", 4},
                             {2, "02 'a'", 4},
                             {1, "02", 4},
                             {0, "", 3},
                         }),
                         [](const auto& row) { return std::to_string(row.param.capacity); });

TEST_P(EncodeLabelsCapacityTest, KeepsWhatFitsAndCountsTheCharacters) {
  const CapacityRow& row = GetParam();
  Bytes buffer(static_cast<size_t>(row.capacity), 0xEE);
  EXPECT_EQ(EncodeLabels(buffer.data(), row.capacity, 0, '.', "ab.c", 64), row.end);
  EXPECT_EQ(Hex(buffer), WireHex(row.wire));
}

TEST(EncodeLabels, RootThatDoesNotFitLeavesThePosition) {
  Bytes buffer(4, 0xEE);
  EXPECT_EQ(EncodeLabels(buffer.data(), 4, 4, '.', "", 64), 4);
  EXPECT_EQ(EncodeLabels(buffer.data(), 4, 9, '.', "", 64), 9);
  EXPECT_EQ(EncodeLabels(buffer.data(), 4, 3, '.', "", 64), 4);
  EXPECT_EQ(Hex(buffer), "EE EE EE 00");
}

TEST(EncodeLabels, PositionBeyondTheCapacityCountsCharactersOnly) {
  Bytes buffer(4, 0xEE);
  EXPECT_EQ(EncodeLabels(buffer.data(), 4, 10, '.', "ab.c", 64), 13);
  EXPECT_EQ(Hex(buffer), "EE EE EE EE");
}

}  // namespace
