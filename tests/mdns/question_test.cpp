#include "mdns/question.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/bytes.h"
#include "tests/support/case_name.h"

namespace {

struct HostRow {
  const char* name;
  std::string wire;  // from the first question on
  std::string deviceName;
  bool asks;
};

class HostNameTest : public testing::TestWithParam<HostRow> {};

const HostRow kHostRows[] = {
    {"SameName", "08 'myrouter' 05 'local' 00 00 01 00 01", "myrouter", true},
    {"UpperCaseInTheQuestion", "08 'MYROUTER' 05 'local' 00 00 01 00 01", "myrouter", true},
    {"UpperCaseInTheDeviceName", "08 'myrouter' 05 'local' 00 00 01 00 01", "MyRouteR", true},
    {"LettersAtTheEdges", "04 'AZaz' 05 'local' 00", "azAZ", true},
    {"CharactersBesideTheLetters", "02 '@[' 05 'local' 00", "`{", false},
    {"OtherLetters", "01 C4 05 'local' 00", "\xE4", false},
    {"SameOtherLetters", "01 C4 05 'local' 00", "\xC4", true},
    {"RestOfTheNameDoesNotMatter", "08 'myrouter' 03 'lan' 00", "myrouter", true},
    {"OneCharacterMore", "09 'myrouterx' 05 'local' 00", "myrouter", false},
    {"OneCharacterLess", "07 'myroute' 05 'local' 00", "myrouter", false},
    {"LabelOfDeviceNameAndMoreBytes", "07 'myrouter' 05 'local' 00", "myrouter", false},
    {"CutAtAZeroByte", "0C 'myrouter' 00 'abc' 05 'local' 00", "myrouter", true},
    {"ZeroByteTooEarly", "08 'myro' 00 'ter' 05 'local' 00", "myrouter", false},
    {"ZeroByteFirst", "08 00 'yrouter' 05 'local' 00", "myrouter", false},
    {"RootName", "00 00 01 00 01", "myrouter", false},
    {"EmptyDeviceName", "00 00 01 00 01", "", true},
    {"EmptyDeviceNameAndALabel", "01 'a' 00", "", false},
    {"LongestDeviceName", "40 64*'A' 05 'local' 00", std::string(64, 'a'), true},
    {"LabelOf65", "41 65*'a' 05 'local' 00", std::string(64, 'a'), false},
    {"LabelOf255", "FF 255*'a' 05 'local' 00", std::string(64, 'a'), false},
    {"LongLabelCutAtAZeroByte", "FF 64*'a' 00 190*'b' 05 'local' 00", std::string(64, 'a'), true},
    {"LabelBeyondTheBuffer", "FF 'ab'", "abc", false},
};

INSTANTIATE_TEST_SUITE_P(Questions, HostNameTest, testing::ValuesIn(kHostRows), CaseName());

TEST_P(HostNameTest, ComparesTheFirstLabel) {
  const HostRow& row = GetParam();
  ExactBytes message(Wire("00 00 00 00 00 01 00 00 00 00 00 00 " + row.wire));
  EXPECT_EQ(AsksForHostName(MessageReader(message.Data(), message.Size()), row.deviceName),
            row.asks);
}

TEST_P(HostNameTest, NoByteBeyondACutMessageIsRead) {
  const HostRow& row = GetParam();
  const Bytes whole = Wire("00 00 00 00 00 01 00 00 00 00 00 00 " + row.wire);
  for (size_t size = 0; size <= whole.size(); ++size) {
    ExactBytes message(std::span<const uint8_t>(whole).first(size));
    const MessageReader reader(message.Data(), size);
    AsksForHostName(reader, row.deviceName);
    HostQuestionType(reader);
  }
}

TEST(HostQuestionType, IsTheLowByteAfterTwoLabels) {
  for (const auto& [wire, type] : std::initializer_list<std::pair<const char*, uint8_t>>{
           {"08 'myrouter' 05 'local' 00 00 01 00 01", 1},
           {"08 'myrouter' 05 'local' 00 00 1C 00 01", 28},
           {"08 'myrouter' 05 'local' 00 00 FF 80 01", 255},
           {"01 'm' 05 'local' 00 FF 01 00 01", 1},
           {"08 'myrouter' 05 'local' 00 01", 0},
           {"00 00 01 00 00 00 00 00 07 09", 9},
           {"FF 255*'m' 05 'local' 00 00 0C", 12},
           {"FF 'm'", 0},
       }) {
    ExactBytes message(Wire(std::string("00 00 00 00 00 01 00 00 00 00 00 00 ") + wire));
    EXPECT_EQ(HostQuestionType(MessageReader(message.Data(), message.Size())), type) << wire;
  }
}

struct ServiceRow {
  const char* name;
  std::string wire;  // the whole message after the flags
  const char* shortLabel;
  bool asks;
};

class ServiceTest : public testing::TestWithParam<ServiceRow> {};

// The entry's service name is Office.
const ServiceRow kServiceRows[] = {
    {"BrowsingForTheType", "00 01 6*00 04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01", "_ipp",
     true},
    {"AnyTypeAndClass", "00 01 6*00 04 '_ipp' 04 '_tcp' 05 'local' 00 12 34 56 78", "_ipp", true},
    {"ProtocolAndDomainDoNotMatter", "00 01 6*00 04 '_ipp' 04 '_udp' 07 'example' 00 00 0C 00 01",
     "_ipp", true},
    {"UpperCase", "00 01 6*00 04 '_IPP' 04 '_tcp' 05 'local' 00 00 0C 00 01", "_ipp", false},
    {"LongerLabel", "00 01 6*00 05 '_ipps' 04 '_tcp' 05 'local' 00 00 0C 00 01", "_ipp", false},
    {"ShorterLabel", "00 01 6*00 03 '_ip' 04 '_tcp' 05 'local' 00 00 0C 00 01", "_ipp", false},
    {"OtherService", "00 01 6*00 08 '_printer' 04 '_tcp' 05 'local' 00 00 0C 00 01", "_ipp", false},
    {"Printer", "00 01 6*00 08 '_printer' 04 '_tcp' 05 'local' 00 00 0C 00 01", "_printer", true},
    {"Instance", "00 01 6*00 06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00 00 21 00 01", "_ipp",
     true},
    {"OtherInstance", "00 01 6*00 05 'Other' 04 '_ipp' 04 '_tcp' 05 'local' 00 00 21 00 01", "_ipp",
     false},
    {"LongerInstance", "00 01 6*00 07 'Office2' 04 '_ipp' 04 '_tcp' 05 'local' 00 00 21 00 01",
     "_ipp", false},
    {"PrefixOfTheInstance", "00 01 6*00 03 'Off' 04 '_ipp' 04 '_tcp' 05 'local' 00 00 21 00 01",
     "_ipp", false},
    {"InstanceInAnotherCase",
     "00 01 6*00 06 'OFFICE' 04 '_ipp' 04 '_tcp' 05 'local' 00 00 21 00 01", "_ipp", false},
    {"InstanceWithLabelsBetween", "00 01 6*00 06 'Office' 01 'x' 04 '_ipp' 05 'local' 00", "_ipp",
     true},
    {"TypeAsASecondLabelOnly", "00 01 6*00 01 'x' 06 'Office' 04 '_ipp' 05 'local' 00", "_ipp",
     false},
    {"UniversalSubtype",
     "00 01 6*00 0A '_universal' 04 '_sub' 04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01", "_ipp",
     true},
    {"UniversalSubtypeOfPrinter",
     "00 01 6*00 0A '_universal' 04 '_sub' 08 '_printer' 04 '_tcp' 05 'local' 00 00 0C 00 01",
     "_printer", false},
    {"OtherSubtype", "00 01 6*00 06 '_print' 04 '_sub' 04 '_ipp' 04 '_tcp' 05 'local' 00", "_ipp",
     false},
    {"UniversalAsASecondLabel", "00 01 6*00 01 'x' 0A '_universal' 04 '_ipp' 00", "_ipp", false},
    {"SecondQuestion",
     "00 02 6*00 04 '_tcp' 05 'local' 00 00 0C 00 01 04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01",
     "_ipp", true},
    {"SecondQuestionsFirstLabelIsItsOwn",
     "00 02 6*00 06 'Office' 05 'local' 00 00 0C 00 01 01 'x' 04 '_ipp' 00 00 0C 00 01", "_ipp",
     false},
    {"InstanceInTheSecondQuestion",
     "00 02 6*00 01 'x' 05 'local' 00 00 0C 00 01 06 'Office' 04 '_ipp' 00 00 0C 00 01", "_ipp",
     true},
    {"KnownAnswersAreNotRead",
     "00 01 00 01 00 00 00 00 08 '_printer' 04 '_tcp' 05 'local' 00 00 0C 00 01"
     " 04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01 00 00 11 94 00 00",
     "_ipp", false},
    {"WithoutACountEverythingIsRead",
     "00 00 00 00 00 00 00 00 08 '_printer' 04 '_tcp' 05 'local' 00 00 0C 00 01"
     " 04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01",
     "_ipp", true},
    {"CountAboveTheQuestions", "FF FF 6*00 01 'x' 00 00 0C 00 01", "_ipp", false},
    {"CountIsBigEndian",
     "01 00 6*00 01 'x' 00 00 0C 00 01 04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01", "_ipp",
     true},
    {"PointersAreNotFollowed",
     "00 02 6*00 04 '_tcp' 04 '_ipp' 05 'local' 00 00 0C 00 01 06 'Office' C0 11 00 21 00 01",
     "_ipp", false},
    {"PointerEndsAName",
     "00 02 6*00 01 'x' C0 0C 00 0C 00 01 04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01", "_ipp",
     true},
    {"OtherPointersAreLengths",
     "00 02 6*00 01 'x' C1 0C 00 0C 00 01 04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01", "_ipp",
     false},
    {"LongLengthIsALength", "00 01 6*00 C1 193*'x' 04 '_ipp' 00 00 0C 00 01", "_ipp", false},
    {"LongLengthThenInstance",
     "00 02 6*00 40 64*'x' 00 00 0C 00 01 06 'Office' 04 '_ipp' 00 00 0C 00 01", "_ipp", true},
    {"LongestLengthsAreSteppedOver",
     "00 02 6*00 01 'a' C1 193*'x' FF 255*'x' BF 191*'x' 00 00 0C 00 01"
     " 04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01",
     "_ipp", true},
    {"LabelThatLeavesTheMessage", "00 01 6*00 05 '_ipp'", "_ipp", false},
    {"LabelThatEndsTheMessage", "00 01 6*00 04 '_ipp'", "_ipp", true},
    {"HeaderAndOneByte", "00 01 6*00 00", "_ipp", false},
};

INSTANTIATE_TEST_SUITE_P(Questions, ServiceTest, testing::ValuesIn(kServiceRows), CaseName());

TEST_P(ServiceTest, WalksTheQuestions) {
  const ServiceRow& row = GetParam();
  ExactBytes message(Wire("00 00 00 00 " + row.wire));
  EXPECT_EQ(AsksForService(MessageReader(message.Data(), message.Size()), row.shortLabel, "Office"),
            row.asks);
}

TEST_P(ServiceTest, PrefixMatchesOnlyOnceTheLabelIsThere) {
  const ServiceRow& row = GetParam();
  const Bytes whole = Wire("00 00 00 00 " + row.wire);
  bool before = false;
  for (size_t size = 13; size <= whole.size(); ++size) {
    ExactBytes message(std::span<const uint8_t>(whole).first(size));
    const bool asks = AsksForService(MessageReader(message.Data(), size), row.shortLabel, "Office");
    EXPECT_GE(asks, before) << size;
    before = asks;
  }
  EXPECT_EQ(before, row.asks);
}

TEST(AsksForService, EveryByteValueInEveryPlaceStaysInside) {
  const Bytes whole = Wire(
      "00 00 00 00 00 02 6*00 06 'Office' 05 'local' 00 00 0C 00 01 02 'ab' C0 0C 00 0C 00 01");
  for (size_t at = 4; at < whole.size(); ++at) {
    for (int value = 0; value < 256; ++value) {
      ExactBytes message(whole);
      message.Data()[at] = static_cast<uint8_t>(value);
      const MessageReader reader(message.Data(), message.Size());
      EXPECT_FALSE(AsksForService(reader, "_ipp", "Office"));
      AsksForHostName(reader, "Office");
      HostQuestionType(reader);
    }
  }
}

}  // namespace
