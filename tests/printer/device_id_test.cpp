#include "printer/device_id.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/case_name.h"

namespace {

class DeviceId : public testing::Test {
 protected:
  // Exactly as large as the driver's answer: a sanitizer sees one byte too far.
  std::unique_ptr<char[]> id{new char[512]()};
};

TEST_F(DeviceId, TextBeginsAfterTheLengthField) {
  memcpy(id.get(), "\x00\x16MFG:X;MODEL:Y;CMD:Z;", 22);
  EXPECT_EQ(DeviceIdText(id.get()), "MFG:X;MODEL:Y;CMD:Z;");
}

TEST_F(DeviceId, LengthFieldIsNotLookedAt) {
  memcpy(id.get(), "\x00\x00MODEL:Y;", 10);
  EXPECT_EQ(DeviceIdText(id.get()), "MODEL:Y;");
}

TEST_F(DeviceId, TextEndsAtTheFirstZero) {
  memcpy(id.get(), "\x02\x00MODEL:Y;\0CMD:Z;", 17);
  EXPECT_EQ(DeviceIdText(id.get()), "MODEL:Y;");
}

TEST_F(DeviceId, EmptyBlockGivesAnEmptyText) { EXPECT_EQ(DeviceIdText(id.get()), ""); }

TEST_F(DeviceId, FullBlockIsReadToItsEnd) {
  memset(id.get(), 'a', 512);
  EXPECT_EQ(DeviceIdText(id.get()), std::string(510, 'a'));
}

struct ModelCase {
  const char* name;
  std::string text;
  bool found;
  std::string model;
};

class FindModelTest : public testing::TestWithParam<ModelCase> {};

TEST_P(FindModelTest, FindsTheKey) {
  // A view of exactly the text, on the heap: a sanitizer sees one byte too far.
  const std::vector<char> text(GetParam().text.begin(), GetParam().text.end());
  std::string_view model = "unchanged";
  EXPECT_EQ(FindModel({text.data(), text.size()}, model), GetParam().found);
  EXPECT_EQ(model, GetParam().found ? GetParam().model : "unchanged");
}

INSTANTIATE_TEST_SUITE_P(
    , FindModelTest,
    testing::Values(
        ModelCase{"AfterAnotherKey", "MFG:X;MODEL:Y;CMD:Z;", true, "Y"},
        ModelCase{"AtTheVeryStart", "MODEL:Y;CMD:Z;", true, "Y"},
        ModelCase{"AtTheSecondCharacter", "XMODEL:Y;", true, "Y"},
        ModelCase{"NotAtTheThirdCharacter", "XXMODEL:Y;", false, ""},
        ModelCase{"AtTheThirdCharacterAfterASemicolon", "X;MODEL:Y;", true, "Y"},
        ModelCase{"NotAsTheEndOfAnotherKey", "MFG:X;XMODEL:Y;CMD:Z;", false, ""},
        ModelCase{"NotAfterABlank", "MFG:X; MODEL:Y;", false, ""},
        ModelCase{"NotTheShortKey", "MFG:X;MDL:Y;CMD:Z;", false, ""},
        ModelCase{"NotInLowerCase", "MFG:X;model:Y;", false, ""},
        ModelCase{"NotWithoutColon", "MFG:X;MODEL;CMD:Z;", false, ""},
        ModelCase{"NotWithABlankBeforeTheColon", "MFG:X;MODEL :Y;", false, ""},
        ModelCase{"NotAtTheEndOfTheText", "MFG:X;MODEL", false, ""},
        ModelCase{"NotInAnEmptyText", "", false, ""},
        ModelCase{"SearchGoesOnAfterOneThatDoesNotCount", "MFG:MODEL;XMODEL:A;MODEL:B;", true, "B"},
        ModelCase{"SearchGoesOnFiveCharactersFurther", "MFG:X;MODELMODEL:Y;", false, ""},
        ModelCase{"SearchMissesNothingNextToOneThatDoesNotCount", "MFG:MODEL;MODEL:Y;", true, "Y"},
        ModelCase{"FirstThatCountsWins", "MODEL:A;MODEL:B;", true, "A"},
        ModelCase{"ValueEndsWithTheText", "MFG:X;MODEL:Y 12", true, "Y 12"},
        ModelCase{"ValueMayHoldColons", "MODEL:Y:12;", true, "Y:12"},
        ModelCase{"ValueIsNotTrimmed", "MODEL: Y ;", true, " Y "},
        ModelCase{"ValueMayBeEmpty", "MODEL:;CMD:Z;", true, ""},
        ModelCase{"ValueMayBeEmptyAtTheEnd", "MODEL:", true, ""},
        ModelCase{"ValueOfSixtyThreeCharacters", "MODEL:" + std::string(63, 'y') + ";", true,
                  std::string(63, 'y')},
        ModelCase{"NotAValueOfSixtyFourCharacters", "MODEL:" + std::string(64, 'y') + ";", false,
                  ""},
        ModelCase{"ValueOfSixtyThreeCharactersAtTheEnd", "MODEL:" + std::string(63, 'y'), true,
                  std::string(63, 'y')},
        ModelCase{"NotAValueOfSixtyFourCharactersAtTheEnd", "MODEL:" + std::string(64, 'y'), false,
                  ""},
        ModelCase{"NoSecondChanceAfterAValueTooLong", "MODEL:" + std::string(64, 'y') + ";MODEL:Y;",
                  false, ""}),
    CaseName());

}  // namespace
