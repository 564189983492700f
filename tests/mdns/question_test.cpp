#include "mdns/question.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/bytes.h"

namespace {

constexpr char kHeader[] = "00 00 00 00 00 01 00 00 00 00 00 00 ";

struct HostRow {
  const char* behaviour;
  const char* wire;  // from the first question on
  std::string deviceName;
  bool asks;
};

const HostRow kHostRows[] = {
    {"the name", "08 'myrouter' 05 'local' 00 00 01 00 01", "myrouter", true},
    {"the rest of the name does not matter", "08 'myrouter' 03 'lan' 00", "myrouter", true},
    {"case does not matter", "08 'MYrouter' 05 'local' 00", "myROUTER", true},
    {"case of the first and last letters", "04 'AZaz' 05 'local' 00", "azAZ", true},
    {"characters beside the letters", "02 '@[' 05 'local' 00", "`{", false},
    {"case of other letters matters", "01 C4 05 'local' 00", "\xE4", false},
    {"one character more", "09 'myrouterx' 05 'local' 00", "myrouter", false},
    {"another last letter", "08 'myroutes' 05 'local' 00", "myrouter", false},
    {"one character less", "07 'myrouter' 05 'local' 00", "myrouter", false},
    {"a label is cut at a zero byte", "0C 'myrouter' 00 'abc' 05 'local' 00", "myrouter", true},
    {"a zero byte too early", "08 'myro' 00 'ter' 05 'local' 00", "myrouter", false},
    {"no name at all", "00 00 01 00 01", "", true},
    {"a label of 65", "41 65*'a' 05 'local' 00", std::string(64, 'a'), false},
    {"a label beyond the buffer", "FF 'ab'", "abc", false},
};

TEST(AsksForHostName, ComparesTheFirstLabel) {
  for (const HostRow& row : kHostRows) {
    const Bytes whole = Wire(std::string(kHeader) + row.wire);
    bool asks = false;
    for (size_t size = 0; size <= whole.size(); ++size) {
      ExactBytes message(std::span<const uint8_t>(whole).first(size));
      const MessageReader reader(message.Data(), size);
      asks = AsksForHostName(reader, row.deviceName);
      HostQuestionType(reader);
    }
    EXPECT_EQ(asks, row.asks) << row.behaviour;
  }
}

TEST(HostQuestionType, IsTheLowByteAfterTwoLabels) {
  for (const auto& [wire, type] : std::initializer_list<std::pair<const char*, uint8_t>>{
           {"08 'myrouter' 05 'local' 00 00 FF 80 01", 255},
           {"01 'm' 05 'local' 00 FF 01 00 01", 1},
           {"08 'myrouter' 05 'local' 00 01", 0},
           {"00 00 01 00 00 00 00 00 07 09", 9},
           {"FF 255*'m' 05 'local' 00 00 0C", 12},
           {"FF 'm'", 0},
       }) {
    ExactBytes message(Wire(std::string(kHeader) + wire));
    EXPECT_EQ(HostQuestionType(MessageReader(message.Data(), message.Size())), type) << wire;
  }
}

struct ServiceRow {
  const char* behaviour;
  const char* counts;  // of the header
  const char* wire;    // after it
  bool asks;
  const char* shortLabel = "_ipp";
};

constexpr char kOne[] = "00 01 6*00 ";
constexpr char kTwo[] = "00 02 6*00 ";

// The entry's service name is Office.
const ServiceRow kServiceRows[] = {
    {"browsing", kOne, "04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01", true},
    {"the first label decides", kOne, "04 '_ipp' 04 '_udp' 03 'lan' 00 12 34 56 78", true},
    {"another case", kOne, "04 '_IPP' 04 '_tcp' 05 'local' 00 00 0C 00 01", false},
    {"a longer label", kOne, "05 '_ipps' 04 '_tcp' 05 'local' 00 00 0C 00 01", false},
    {"a shorter label", kOne, "03 '_ip' 04 '_tcp' 05 'local' 00 00 0C 00 01", false},
    {"the instance", kOne, "06 'Office' 04 '_ipp' 04 '_tcp' 00 00 21 00 01", true},
    {"a longer instance", kOne, "07 'Office2' 04 '_ipp' 04 '_tcp' 00 00 21 00 01", false},
    {"a shorter instance", kOne, "03 'Off' 04 '_ipp' 04 '_tcp' 00 00 21 00 01", false},
    {"the instance in another case", kOne, "06 'OFFICE' 04 '_ipp' 00 00 21 00 01", false},
    {"labels between instance and type", kOne, "06 'Office' 01 'x' 04 '_ipp' 00", true},
    {"an instance that is not first", kOne, "01 'x' 06 'Office' 04 '_ipp' 00", false},
    {"the subtype", kOne, "0A '_universal' 04 '_sub' 04 '_ipp' 04 '_tcp' 00 00 0C 00 01", true},
    {"the subtype of another", kOne, "0A '_universal' 04 '_sub' 08 '_printer' 04 '_tcp' 00", false,
     "_printer"},
    {"a second question", kTwo, "04 '_tcp' 00 00 0C 00 01 04 '_ipp' 04 '_tcp' 00 00 0C 00 01",
     true},
    {"the instance in the second question", kTwo,
     "01 'x' 00 00 0C 00 01 06 'Office' 04 '_ipp' 00 00 0C 00 01", true},
    {"the instance in the question before", kTwo,
     "06 'Office' 00 00 0C 00 01 01 'x' 04 '_ipp' 00 00 0C 00 01", false},
    {"known answers are not read", "00 01 00 01 00 00 00 00 ",
     "08 '_printer' 00 00 0C 00 01 04 '_ipp' 04 '_tcp' 00 00 0C 00 01 00 00 11 94 00 00", false},
    {"without a count everything is read", "00 00 6*00 ",
     "08 '_printer' 00 00 0C 00 01 04 '_ipp' 04 '_tcp' 00 00 0C 00 01", true},
    {"a count above the questions", "FF FF 6*00 ", "01 'x' 00 00 0C 00 01", false},
    {"the count is big-endian", "01 00 6*00 ",
     "01 'x' 00 00 0C 00 01 04 '_ipp' 04 '_tcp' 00 00 0C 00 01", true},
    {"pointers are not followed", kTwo,
     "04 '_tcp' 04 '_ipp' 05 'local' 00 00 0C 00 01 06 'Office' C0 11 00 21 00 01", false},
    {"a pointer ends a name", kTwo, "01 'x' C0 0C 00 0C 00 01 04 '_ipp' 04 '_tcp' 00 00 0C 00 01",
     true},
    {"other pointers are lengths", kTwo,
     "01 'x' C1 0C 00 0C 00 01 04 '_ipp' 04 '_tcp' 00 00 0C 00 01", false},
    {"the longest lengths are stepped over", kTwo,
     "01 'a' C1 193*'x' FF 255*'x' BF 191*'x' 00 00 0C 00 01 04 '_ipp' 00 00 0C 00 01", true},
    {"a label that leaves the message", kOne, "05 '_ipp'", false},
    {"a label that ends the message", kOne, "04 '_ipp'", true},
};

// What is added to a message never takes back what its beginning asks for.
TEST(AsksForService, WalksTheQuestions) {
  for (const ServiceRow& row : kServiceRows) {
    SCOPED_TRACE(row.behaviour);
    const Bytes whole = Wire(std::string("00 00 00 00 ") + row.counts + row.wire);
    bool asked = false;
    for (size_t size = 13; size <= whole.size(); ++size) {
      ExactBytes message(std::span<const uint8_t>(whole).first(size));
      const MessageReader reader(message.Data(), size);
      const bool asks = AsksForService(reader, row.shortLabel, "Office");
      EXPECT_GE(asks, asked) << size;
      asked = asks;
    }
    EXPECT_EQ(asked, row.asks);
  }
}

}  // namespace
