// ScanPrinters: the ports and the service names that a status file gives.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "base/responder.h"
#include "base/text.h"
#include "printer/monitor.h"
#include "tests/support/case_name.h"

namespace {

constexpr uint8_t kMac[6] = {0x00, 0x11, 0x22, 0xAA, 0x0B, 0xC0};
constexpr char kOnePrinter[] = "usblp0\nHP\nModel 12\nPCL\n\n";

struct ScanCase {
  const char* name;
  std::string text;
  std::string present;  // the digits of the ports that have a printer, in order
  std::array<std::string, 10> names;
};

class ScanPrintersTest : public testing::TestWithParam<ScanCase> {
 protected:
  void SetUp() override { memset(printerServiceNames, 0, sizeof(printerServiceNames)); }
};

TEST_P(ScanPrintersTest, FindsPortsAndNames) {
  memcpy(hw_addr, kMac, 6);
  PrinterPresence presence = {};
  // A view of exactly the text, on the heap: a sanitizer sees one byte too far.
  const std::vector<char> text(GetParam().text.begin(), GetParam().text.end());
  ScanPrinters({text.data(), text.size()}, presence);
  std::string present;
  for (int32_t port = 0; port < 10; ++port) {
    EXPECT_LE(presence.present[port], 1u);
    if (presence.present[port] == 1) present += static_cast<char>('0' + port);
    EXPECT_EQ(FieldText(printerServiceNames[port]), GetParam().names[static_cast<size_t>(port)])
        << "port " << port;
  }
  EXPECT_EQ(present, GetParam().present);
}

constexpr char kAllTen[] =
    "usblp0\nA\nM0\nX\n\nusblp1\nA\nM1\nX\n\nusblp2\nA\nM2\nX\n\nusblp3\nA\nM3\nX\n\n"
    "usblp4\nA\nM4\nX\n\nusblp5\nA\nM5\nX\n\nusblp6\nA\nM6\nX\n\nusblp7\nA\nM7\nX\n\n"
    "usblp8\nA\nM8\nX\n\nusblp9\nA\nM9\nX\n\n";

INSTANTIATE_TEST_SUITE_P(
    Ports, ScanPrintersTest,
    testing::Values(
        ScanCase{"None", "", "", {}}, ScanCase{"TextWithoutToken", "usb\nA\nM\nX\n\n", "", {}},
        ScanCase{"One", kOnePrinter, "0", {"HP Model 12 (aa:0b:c0) 0"}},
        ScanCase{
            "All",
            kAllTen,
            "0123456789",
            {"A M0 (aa:0b:c0) 0", "A M1 (aa:0b:c0) 1", "A M2 (aa:0b:c0) 2", "A M3 (aa:0b:c0) 3",
             "A M4 (aa:0b:c0) 4", "A M5 (aa:0b:c0) 5", "A M6 (aa:0b:c0) 6", "A M7 (aa:0b:c0) 7",
             "A M8 (aa:0b:c0) 8", "A M9 (aa:0b:c0) 9"}},
        ScanCase{"OrderInTheFileIsFree",
                 "usblp2\nA\nM\nX\n\nusblp1\nB\nN\nX\n\n",
                 "12",
                 {"", "B N (aa:0b:c0) 1", "A M (aa:0b:c0) 2"}},
        ScanCase{"OnlyTheDigitAfterTheTokenCounts",
                 "printer at usblp10 ready\nA\nM\nX\n\n",
                 "1",
                 {"", "A M (aa:0b:c0) 1"}},
        ScanCase{"LaterRecordOfAPortGivesTheName",
                 "usblp0\nA\nM\nX\n\nusblp0\nB\nN\nX\n\n",
                 "0",
                 {"B N (aa:0b:c0) 0"}},
        ScanCase{"ShorterNameLeavesNothingOfALongerOne",
                 "usblp0\nManufacturer\nModel\nX\n\nusblp0\nB\nN\nX\n\n",
                 "0",
                 {"B N (aa:0b:c0) 0"}},
        ScanCase{"RecordWithoutDigitIsPassedOver",
                 "usblpx\nA\nM\nX\n\nusblp1\nB\nN\nX\n\n",
                 "1",
                 {"", "B N (aa:0b:c0) 1"}},
        ScanCase{"CharacterBelowTheDigitsIsPassedOver",
                 "usblp/\nA\nM\nX\n\nusblp1\nB\nN\nX\n\n",
                 "1",
                 {"", "B N (aa:0b:c0) 1"}},
        ScanCase{"CharacterAboveTheDigitsIsPassedOver",
                 "usblp:\nA\nM\nX\n\nusblp1\nB\nN\nX\n\n",
                 "1",
                 {"", "B N (aa:0b:c0) 1"}},
        ScanCase{"ByteAboveAsciiIsPassedOver",
                 "usblp\xb1\nA\nM\nX\n\nusblp1\nB\nN\nX\n\n",
                 "1",
                 {"", "B N (aa:0b:c0) 1"}},
        ScanCase{"TokenAtTheEndOfTheTextHasNoDigit", "A\nB\nC\nD\nusblp", "", {}},
        // Lines are counted from the record's start, the port comes from where the token stands.
        ScanCase{"TokenInALaterLine",
                 "first\nA\nusblp4\nX\n\n",
                 "4",
                 {"", "", "", "", "A usblp4 (aa:0b:c0) 4"}},
        ScanCase{"TokenAfterTheWholeRecord",
                 "first\nA\nM\nX\n\nusblp5\nB\nN\nX\n\n",
                 "5",
                 {"", "", "", "", "", "B N (aa:0b:c0) 5"}},
        ScanCase{"SecondTokenOfARecordIsNotLookedAt",
                 "usblp1\nusblp2\nM\nX\n\n",
                 "1",
                 {"", "usblp2 M (aa:0b:c0) 1"}}),
    CaseName());

INSTANTIATE_TEST_SUITE_P(
    Completeness, ScanPrintersTest,
    testing::Values(ScanCase{"FirstLineIncomplete", "usblp0", "", {}},
                    ScanCase{"SecondLineMissing", "usblp0\n", "", {}},
                    ScanCase{"SecondLineIncomplete", "usblp0\nA", "", {}},
                    ScanCase{"ThirdLineMissing", "usblp0\nA\n", "", {}},
                    ScanCase{"ThirdLineIncomplete", "usblp0\nA\nM", "", {}},
                    ScanCase{"ThreeLinesAreEnough", "usblp0\nA\nM\n", "0", {"A M (aa:0b:c0) 0"}},
                    ScanCase{"FourthLineIncomplete", "usblp0\nA\nM\nX", "0", {"A M (aa:0b:c0) 0"}},
                    ScanCase{"FifthLineMissing", "usblp0\nA\nM\nX\n", "0", {"A M (aa:0b:c0) 0"}},
                    ScanCase{"FifthLineIncompleteEndsTheScan",
                             "usblp0\nA\nM\nX\nusblp1",
                             "0",
                             {"A M (aa:0b:c0) 0"}},
                    ScanCase{"RecordOfFourLinesShiftsAllThatFollow",
                             "usblp0\nA\nM\nX\nusblp1\nB\nN\nY\n\nusblp2\nC\nO\nZ\n\n",
                             "02",
                             {"A M (aa:0b:c0) 0", "", "N Y (aa:0b:c0) 2"}},
                    ScanCase{"MalformedLaterRecordLeavesTheEarlierOnes",
                             "usblp0\nA\nM\nX\n\nusblp1\nB\n",
                             "0",
                             {"A M (aa:0b:c0) 0"}},
                    ScanCase{"MalformedRecordHidesTheLaterOnes", "usblp0\nA", "", {}},
                    ScanCase{"TextAfterTheLastRecordIsIgnored",
                             "usblp0\nA\nM\nX\n\nthe end",
                             "0",
                             {"A M (aa:0b:c0) 0"}}),
    CaseName());

INSTANTIATE_TEST_SUITE_P(
    Names, ScanPrintersTest,
    testing::Values(
        ScanCase{"EmptyModelGivesTwoBlanks", "usblp0\nHP\n\nX\n\n", "0", {"HP  (aa:0b:c0) 0"}},
        ScanCase{"EmptyManufacturer", "usblp0\n\nM\nX\n\n", "0", {" M (aa:0b:c0) 0"}},
        ScanCase{"BothEmpty", "usblp0\n\n\nX\n\n", "0", {"  (aa:0b:c0) 0"}},
        ScanCase{"NothingIsTrimmed", "usblp0\n A \n M \nX\n\n", "0", {" A   M  (aa:0b:c0) 0"}},
        ScanCase{"LinesAreNotCutToTheTxtLimits",
                 "usblp0\n" + std::string(20, 'a') + "\n" + std::string(70, 'm') + "\nX\n\n",
                 "0",
                 {std::string(20, 'a') + " " + std::string(70, 'm') + " (aa:0b:c0) 0"}},
        ScanCase{"OneHundredAndFifteenCharactersAreTakenWhole",
                 "usblp0\n" + std::string(50, 'a') + "\n" + std::string(64, 'm') + "\nX\n\n",
                 "0",
                 {std::string(50, 'a') + " " + std::string(64, 'm') + " (aa:0b:c0) 0"}},
        ScanCase{"OneHundredAndSixteenCharactersAreCut",
                 "usblp0\n" + std::string(50, 'a') + "\n" + std::string(64, 'm') + "M\nX\n\n",
                 "0",
                 {std::string(50, 'a') + " " + std::string(64, 'm') + " (aa:0b:c0) 0"}},
        ScanCase{"LongManufacturerLeavesNoRoomForTheModel",
                 "usblp9\n" + std::string(500, 'a') + "\nM\nX\n\n",
                 "9",
                 {"", "", "", "", "", "", "", "", "", std::string(115, 'a') + " (aa:0b:c0) 9"}},
        ScanCase{"CutAfterTheManufacturersLineFeed",
                 "usblp0\n" + std::string(114, 'a') + "\nM\nX\n\n",
                 "0",
                 {std::string(114, 'a') + "  (aa:0b:c0) 0"}}),
    CaseName());

TEST(ScanPrinters, LongestNameHasOneHundredAndTwentyEightCharacters) {
  memset(hw_addr, 0xff, 6);
  PrinterPresence presence = {};
  ScanPrinters("usblp0\n" + std::string(200, 'a') + "\nM\nX\n\n", presence);
  EXPECT_EQ(FieldText(printerServiceNames[0]).size(), 128u);
  EXPECT_EQ(std::string(printerServiceNames[0] + 115), " (ff:ff:ff) 0");
}

TEST(ScanPrinters, NamesAndFlagsOfOtherPortsAreLeftAlone) {
  PrinterPresence presence = {};
  presence.present[5] = 1;
  CopyText(printerServiceNames[4], "gone");
  ScanPrinters(kOnePrinter, presence);
  EXPECT_EQ(presence.present[5], 1u);
  EXPECT_STREQ(printerServiceNames[4], "gone");
}

}  // namespace
