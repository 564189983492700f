// ScanPrinters: the ports and the service names that a status file gives.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "base/responder.h"
#include "base/text.h"
#include "printer/monitor.h"
#include "tests/support/case_name.h"

namespace {

using Names = std::map<int32_t, std::string>;

struct ScanCase {
  const char* name;
  std::string text;
  Names names;  // of the ports that have a printer
};

class ScanPrintersTest : public testing::TestWithParam<ScanCase> {};

TEST_P(ScanPrintersTest, FindsPortsAndNames) {
  memcpy(hw_addr, "\x00\x11\x22\xAA\x0B\xC0", 6);
  memset(printerServiceNames, 0, sizeof(printerServiceNames));
  PrinterPresence presence = {};
  // A view of exactly the text, on the heap: a sanitizer sees one byte too far.
  const std::vector<char> text(GetParam().text.begin(), GetParam().text.end());
  ScanPrinters({text.data(), text.size()}, presence);
  Names found;
  for (int32_t port = 0; port < 10; ++port) {
    const std::string_view name = FieldText(printerServiceNames[port]);
    EXPECT_EQ(presence.present[port], name.empty() ? 0u : 1u);
    if (!name.empty()) found[port] = name;
  }
  EXPECT_EQ(found, GetParam().names);
}

const std::string k50(50, 'a');
const std::string k64(64, 'm');

INSTANTIATE_TEST_SUITE_P(
    Ports, ScanPrintersTest,
    testing::Values(
        ScanCase{"TextWithoutToken", "usb\nA\nM\nX\n\n", {}},
        ScanCase{"FirstAndLastPortInAnyOrder",
                 "usblp9\nA\nM\nX\n\nusblp0\nB\nN\nX\n\n",
                 {{0, "B N (aa:0b:c0) 0"}, {9, "A M (aa:0b:c0) 9"}}},
        ScanCase{"OnlyTheDigitAfterTheTokenCounts",
                 "printer at usblp10 ready\nA\nM\nX\n\n",
                 {{1, "A M (aa:0b:c0) 1"}}},
        ScanCase{"LaterRecordOfAPortGivesTheNameAndLeavesNothingOfALongerOne",
                 "usblp0\nManufacturer\nM\nX\n\nusblp0\nB\nN\nX\n\n",
                 {{0, "B N (aa:0b:c0) 0"}}},
        ScanCase{"RecordWithACharacterBelowTheDigitsIsPassedOver",
                 "usblp/\nA\nM\nX\n\nusblp1\nB\nN\nX\n\n",
                 {{1, "B N (aa:0b:c0) 1"}}},
        ScanCase{"RecordWithACharacterAboveTheDigitsIsPassedOver",
                 "usblp:\nA\nM\nX\n\nusblp1\nB\nN\nX\n\n",
                 {{1, "B N (aa:0b:c0) 1"}}},
        ScanCase{"ByteAboveAsciiIsPassedOver", "usblp\xb1\nA\nM\nX\n\n", {}},
        ScanCase{"TokenAtTheEndOfTheTextHasNoDigit", "A\nB\nC\nD\nusblp", {}},
        // Lines are counted from the record's start, the port comes from where the token stands.
        ScanCase{"TokenInALaterLine", "first\nA\nusblp4\nX\n\n", {{4, "A usblp4 (aa:0b:c0) 4"}}},
        ScanCase{"TokenAfterTheWholeRecord",
                 "first\nA\nM\nX\n\nusblp5\nB\nN\nX\n\n",
                 {{5, "B N (aa:0b:c0) 5"}}},
        ScanCase{"SecondTokenOfARecordIsNotLookedAt",
                 "usblp1\nusblp2\nM\nX\n\n",
                 {{1, "usblp2 M (aa:0b:c0) 1"}}}),
    CaseName());

INSTANTIATE_TEST_SUITE_P(
    Completeness, ScanPrintersTest,
    testing::Values(ScanCase{"SecondLineIncomplete", "usblp0\nA", {}},
                    ScanCase{"ThirdLineIncomplete", "usblp0\nA\nM", {}},
                    ScanCase{"ThreeLinesAreEnough", "usblp0\nA\nM\n", {{0, "A M (aa:0b:c0) 0"}}},
                    ScanCase{"FifthLineIncompleteEndsTheScan",
                             "usblp0\nA\nM\nX\nusblp1",
                             {{0, "A M (aa:0b:c0) 0"}}},
                    ScanCase{"RecordOfFourLinesShiftsAllThatFollow",
                             "usblp0\nA\nM\nX\nusblp1\nB\nN\nY\n\nusblp2\nC\nO\nZ\n\n",
                             {{0, "A M (aa:0b:c0) 0"}, {2, "N Y (aa:0b:c0) 2"}}},
                    ScanCase{"TextAfterTheLastRecordIsIgnored",
                             "usblp0\nA\nM\nX\n\nthe end",
                             {{0, "A M (aa:0b:c0) 0"}}}),
    CaseName());

INSTANTIATE_TEST_SUITE_P(
    Names, ScanPrintersTest,
    testing::Values(
        ScanCase{"EmptyLinesGiveTwoBlanks", "usblp0\n\n\nX\n\n", {{0, "  (aa:0b:c0) 0"}}},
        ScanCase{"NothingIsTrimmed", "usblp0\n A \n M \nX\n\n", {{0, " A   M  (aa:0b:c0) 0"}}},
        ScanCase{"OneHundredAndFifteenCharactersAreTakenWhole",
                 "usblp0\n" + k50 + "\n" + k64 + "\nX\n\n",
                 {{0, k50 + " " + k64 + " (aa:0b:c0) 0"}}},
        ScanCase{"OneHundredAndSixteenCharactersAreCut",
                 "usblp0\n" + k50 + "\n" + k64 + "M\nX\n\n",
                 {{0, k50 + " " + k64 + " (aa:0b:c0) 0"}}},
        ScanCase{"CutAfterTheManufacturersLineFeed",
                 "usblp0\n" + k50 + k64 + "\nM\nX\n\n",
                 {{0, k50 + k64 + "  (aa:0b:c0) 0"}}}),
    CaseName());

TEST(ScanPrinters, NamesAndFlagsOfOtherPortsAreLeftAlone) {
  PrinterPresence presence = {};
  presence.present[5] = 1;
  CopyText(printerServiceNames[4], "gone");
  ScanPrinters("usblp0\nA\nM\nX\n\n", presence);
  EXPECT_EQ(presence.present[5], 1u);
  EXPECT_STREQ(printerServiceNames[4], "gone");
}

}  // namespace
