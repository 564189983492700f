#include "printer/device_id.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/case_name.h"

namespace {

// Exactly as large as the driver's answer: a sanitizer sees one byte too far.
std::unique_ptr<char[]> Block(const std::string& start) {
  std::unique_ptr<char[]> id(new char[512]());
  memcpy(id.get(), start.data(), start.size());
  return id;
}

TEST(DeviceIdText, IsWhatFollowsTheLengthFieldWhateverThatSaysUpToTheFirstZero) {
  const std::string id("\x02\x00MODEL:Y;\0CMD:Z;", 17);
  EXPECT_EQ(DeviceIdText(Block(id).get()), "MODEL:Y;");
}

TEST(DeviceIdText, EndsWithTheBlock) {
  EXPECT_EQ(DeviceIdText(Block(std::string(512, 'a')).get()), std::string(510, 'a'));
}

struct ModelCase {
  const char* name;
  std::string text;
  std::string model;
};

class FindModelTest : public testing::TestWithParam<ModelCase> {};

TEST_P(FindModelTest, FindsTheKey) {
  // A view of exactly the text, on the heap: a sanitizer sees one byte too far.
  const std::vector<char> text(GetParam().text.begin(), GetParam().text.end());
  std::string_view model = "none";
  EXPECT_EQ(FindModel({text.data(), text.size()}, model), GetParam().model != "none");
  EXPECT_EQ(model, GetParam().model);
}

const std::string k63(63, 'y');

INSTANTIATE_TEST_SUITE_P(
    , FindModelTest,
    testing::Values(
        ModelCase{"AtTheVeryStart", "MODEL:Y;CMD:Z;", "Y"},
        ModelCase{"AtTheSecondCharacter", "XMODEL:Y;", "Y"},
        ModelCase{"NotAtTheThirdCharacter", "XXMODEL:Y;", "none"},
        ModelCase{"AfterASemicolon", "X;MODEL:Y;", "Y"},
        ModelCase{"NotAfterABlank", "MFG:X; MODEL:Y;", "none"},
        ModelCase{"NotTheShortKey", "MFG:X;MDL:Y;CMD:Z;", "none"},
        ModelCase{"NotInLowerCase", "MFG:X;model:Y;", "none"},
        ModelCase{"NotWithABlankBeforeTheColon", "MFG:X;MODEL :Y;", "none"},
        ModelCase{"NotAtTheEndOfTheText", "MFG:X;MODEL", "none"},
        ModelCase{"SearchGoesOnAfterOneThatDoesNotCount", "MFG:MODEL;XMODEL:A;MODEL:B;", "B"},
        ModelCase{"SearchGoesOnFiveCharactersFurther", "MFG:X;MODELMODEL:Y;", "none"},
        ModelCase{"FirstThatCountsWins", "MODEL:A;MODEL:B;", "A"},
        ModelCase{"ValueEndsWithTheTextMayHoldColonsAndIsNotTrimmed", "MODEL: Y:12 ", " Y:12 "},
        ModelCase{"ValueMayBeEmpty", "MODEL:;CMD:Z;", ""},
        ModelCase{"ValueMayBeEmptyAtTheEnd", "MODEL:", ""},
        ModelCase{"ValueOfSixtyThreeCharacters", "MODEL:" + k63 + ";", k63},
        ModelCase{"NotAValueOfSixtyFourCharacters", "MODEL:" + k63 + "y;", "none"},
        ModelCase{"NotAValueOfSixtyFourCharactersAtTheEnd", "MODEL:" + k63 + "y", "none"},
        ModelCase{"NoSecondChanceAfterAValueTooLong", "MODEL:" + k63 + "y;MODEL:Y;", "none"}),
    CaseName());

}  // namespace
