#include "printer/monitor.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "base/text.h"
#include "mdns/state.h"
#include "tests/support/case_name.h"
#include "tests/support/fake_services.h"
#include "tests/support/fake_sleep.h"
#include "tests/support/fake_status_file.h"
#include "tests/support/fault.h"
#include "tests/support/log_capture.h"

namespace {

constexpr uint8_t kMac[6] = {0x00, 0x11, 0x22, 0xAA, 0x0B, 0xC0};
constexpr char kOnePrinter[] = "usblp0\nHP\nModel 12\nPCL\n\n";

std::string Times(size_t count, char character) { return std::string(count, character); }

struct ScanCase {
  const char* name;
  std::string text;
  std::string present;  // the digits of the ports that have a printer, in order
  std::array<std::string, 10> names;
};

static_assert(sizeof(PrinterTxt::text) == 513, "a text takes 512 characters and its terminator");

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
        ScanCase{"OnlyTheDigitBehindTheTokenCounts",
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
        ScanCase{"TokenBehindTheWholeRecord",
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
                 "usblp0\n" + Times(20, 'a') + "\n" + Times(70, 'm') + "\nX\n\n",
                 "0",
                 {Times(20, 'a') + " " + Times(70, 'm') + " (aa:0b:c0) 0"}},
        ScanCase{"OneHundredAndFifteenCharactersAreTakenWhole",
                 "usblp0\n" + Times(50, 'a') + "\n" + Times(64, 'm') + "\nX\n\n",
                 "0",
                 {Times(50, 'a') + " " + Times(64, 'm') + " (aa:0b:c0) 0"}},
        ScanCase{"OneHundredAndSixteenCharactersAreCut",
                 "usblp0\n" + Times(50, 'a') + "\n" + Times(64, 'm') + "M\nX\n\n",
                 "0",
                 {Times(50, 'a') + " " + Times(64, 'm') + " (aa:0b:c0) 0"}},
        ScanCase{"LongManufacturerLeavesNoRoomForTheModel",
                 "usblp9\n" + Times(500, 'a') + "\nM\nX\n\n",
                 "9",
                 {"", "", "", "", "", "", "", "", "", Times(115, 'a') + " (aa:0b:c0) 9"}},
        ScanCase{"CutBehindTheManufacturersLineFeed",
                 "usblp0\n" + Times(114, 'a') + "\nM\nX\n\n",
                 "0",
                 {Times(114, 'a') + "  (aa:0b:c0) 0"}}),
    CaseName());

TEST(ScanPrinters, LongestNameHasOneHundredAndTwentyEightCharacters) {
  memset(hw_addr, 0xff, 6);
  PrinterPresence presence = {};
  ScanPrinters("usblp0\n" + Times(200, 'a') + "\nM\nX\n\n", presence);
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

// One line a call: what was asked of the services.
std::string Story() {
  std::string story;
  for (const ServiceCall& call : fakeServices.calls) {
    story += call.action == 1 ? "+" : "-";
    story += std::to_string(call.port) + (call.kind == 1   ? " pdl "
                                          : call.kind == 2 ? " ipp "
                                                           : " other ");
    story += call.name + "\n";
  }
  fakeServices.calls.clear();
  return story;
}

PrinterPresence Ports(std::string_view digits) {
  PrinterPresence presence = {};
  for (const char digit : digits) presence.present[digit - '0'] = 1;
  return presence;
}

class ApplyPresenceTest : public testing::Test {
 protected:
  void SetUp() override {
    fakeServices = {};
    memset(printerServiceNames, 0, sizeof(printerServiceNames));
    for (int32_t port = 0; port < 10; ++port) {
      printerServiceNames[port][0] = 'p';
      printerServiceNames[port][1] = static_cast<char>('0' + port);
    }
  }
  // Gives the buffers back, so that a leak of the module under test stands out.
  void TearDown() override { Apply(""); }

  Log Apply(std::string_view ports) {
    return LogOf([&] { ApplyPresence(previous, Ports(ports)); });
  }

  PrinterPresence previous = {};
};

TEST_F(ApplyPresenceTest, InsertionRegistersRawPortThenIpp) {
  const Log log = Apply("0");
  EXPECT_EQ(log.out, "[Bonjour] device insert lp0\n");
  EXPECT_EQ(log.err, "");
  EXPECT_EQ(Story(), "+0 pdl p0\n+0 ipp p0\n");
}

TEST_F(ApplyPresenceTest, RemovalUnregistersRawPortThenIpp) {
  Apply("0");
  Story();
  const Log log = Apply("");
  EXPECT_EQ(log.out, "[Bonjour] device remove lp0\n");
  EXPECT_EQ(log.err, "");
  EXPECT_EQ(Story(), "-0 pdl p0\n-0 ipp p0\n");
}

TEST_F(ApplyPresenceTest, NothingHappensToPortsThatStay) {
  Apply("09");
  Story();
  EXPECT_EQ(Apply("09").out, "");
  EXPECT_EQ(Story(), "");
}

TEST_F(ApplyPresenceTest, PortsAreHandledInOrderInsertionsAndRemovalsMixed) {
  Apply("13");
  Story();
  const Log log = Apply("0349");
  EXPECT_EQ(log.out,
            "[Bonjour] device insert lp0\n[Bonjour] device remove lp1\n"
            "[Bonjour] device insert lp4\n[Bonjour] device insert lp9\n");
  EXPECT_EQ(Story(),
            "+0 pdl p0\n+0 ipp p0\n-1 pdl p1\n-1 ipp p1\n"
            "+4 pdl p4\n+4 ipp p4\n+9 pdl p9\n+9 ipp p9\n");
}

TEST_F(ApplyPresenceTest, PreviousPassBecomesTheCurrentOne) {
  Apply("25");
  Apply("5");
  EXPECT_EQ(memcmp(&previous, "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\1\0\0\0", 20), 0);
  EXPECT_EQ(previous.present[5], 1u);
  EXPECT_EQ(previous.present[2], 0u);
}

TEST_F(ApplyPresenceTest, EachServiceGetsAZeroedBufferOfItsOwn) {
  Apply("7");
  ASSERT_EQ(fakeServices.calls.size(), 2u);
  const ServiceCall& pdl = fakeServices.calls[0];
  const ServiceCall& ipp = fakeServices.calls[1];
  EXPECT_TRUE(pdl.txtIsZeroed);
  EXPECT_TRUE(ipp.txtIsZeroed);
  EXPECT_NE(pdl.txt, ipp.txt);
  EXPECT_EQ(pdl.txt, printerTxtPdl[7]->text);
  EXPECT_EQ(ipp.txt, printerTxtIpp[7]->text);
}

TEST_F(ApplyPresenceTest, RemovalClearsThePointers) {
  Apply("7");
  Apply("");
  EXPECT_EQ(printerTxtPdl[7], nullptr);
  EXPECT_EQ(printerTxtIpp[7], nullptr);
}

TEST_F(ApplyPresenceTest, FailedRegistrationKeepsItsBufferAndIsUnregisteredAllTheSame) {
  fakeServices.result = 0;
  Apply("7");
  EXPECT_NE(printerTxtPdl[7], nullptr);
  EXPECT_NE(printerTxtIpp[7], nullptr);
  Story();
  Apply("7");
  EXPECT_EQ(Story(), "");
  Apply("");
  EXPECT_EQ(Story(), "-7 pdl p7\n-7 ipp p7\n");
}

TEST_F(ApplyPresenceTest, ServiceWithoutBufferIsNotUnregistered) {
  Apply("7");
  Story();
  PrinterTxt* const lost = printerTxtPdl[7];
  printerTxtPdl[7] = nullptr;
  const Log log = Apply("");
  EXPECT_EQ(log.out, "[Bonjour] device remove lp7\n");
  EXPECT_EQ(Story(), "-7 ipp p7\n");
  free(lost);
}

TEST_F(ApplyPresenceTest, ServiceWithoutMemoryForItsTextIsLeftOutAndTheOtherOneIsNot) {
  struct {
    int failedCall;
    const char* story;
  } const cases[] = {{1, "+7 ipp p7\n-7 ipp p7\n"}, {2, "+7 pdl p7\n-7 pdl p7\n"}};
  for (const auto& row : cases) {
    callocFault.FailCall(row.failedCall);
    const Log log = Apply("7");
    EXPECT_TRUE(callocFault.HasStruck());
    EXPECT_EQ(log.out, "[Bonjour] device insert lp7\n");
    EXPECT_EQ(log.err, "[Bonjour] malloc error: Cannot allocate memory\n");
    EXPECT_EQ(printerTxtPdl[7] == nullptr, row.failedCall == 1);
    EXPECT_EQ(printerTxtIpp[7] == nullptr, row.failedCall == 2);
    EXPECT_EQ(Apply("").out, "[Bonjour] device remove lp7\n");
    EXPECT_EQ(Story(), row.story);
  }
}

// Runs the monitor over a story of passes, each with the file as it is then, without waiting.
class Monitor : public testing::Test {
 protected:
  struct Pass {
    bool canOpen;
    std::string text;
  };

  void SetUp() override {
    fakeServices = {};
    fakeStatusFile = {};
    bTerminate.Set(0);
    memcpy(hw_addr, kMac, 6);
  }
  // A stopped monitor leaves its texts to the services that are still registered.
  void TearDown() override {
    for (int32_t port = 0; port < 10; ++port) {
      free(printerTxtPdl[port]);
      free(printerTxtIpp[port]);
      printerTxtPdl[port] = nullptr;
      printerTxtIpp[port] = nullptr;
    }
  }

  Log Run(const std::vector<Pass>& passes) {
    size_t pass = 0;
    const auto show = [&] {
      fakeStatusFile.present = passes[pass].canOpen;
      fakeStatusFile.text = passes[pass].text;
    };
    fakeSleep.hook = [&](unsigned seconds) {
      pauses.push_back(seconds);
      ++pass;
      if (pass == passes.size()) {
        bTerminate.Set(1);
      } else {
        show();
      }
    };
    show();
    Log log = LogOf([] { EXPECT_EQ(CheckUsbDevice(nullptr), nullptr); });
    fakeSleep.hook = nullptr;
    return log;
  }

  std::vector<unsigned> pauses;
};

constexpr char kCannotOpen[] = "[Bonjour] Can not open \"/proc/printer_status\"\n";

TEST_F(Monitor, FirstPassPublishesAndTheNextOnesDoNothing) {
  const Log log = Run({{true, kOnePrinter}, {true, kOnePrinter}, {true, kOnePrinter}});
  EXPECT_EQ(log.out, "[Bonjour] device insert lp0\n");
  EXPECT_EQ(log.err, "");
  EXPECT_EQ(Story(),
            "+0 pdl HP Model 12 (aa:0b:c0) 0\n"
            "+0 ipp HP Model 12 (aa:0b:c0) 0\n");
  EXPECT_EQ(fakeStatusFile.reads, 3);
}

TEST_F(Monitor, EmptyFileWithdraws) {
  const Log log = Run({{true, kOnePrinter}, {true, ""}});
  EXPECT_EQ(log.out, "[Bonjour] device insert lp0\n[Bonjour] device remove lp0\n");
  EXPECT_EQ(Story(),
            "+0 pdl HP Model 12 (aa:0b:c0) 0\n"
            "+0 ipp HP Model 12 (aa:0b:c0) 0\n"
            "-0 pdl HP Model 12 (aa:0b:c0) 0\n"
            "-0 ipp HP Model 12 (aa:0b:c0) 0\n");
}

TEST_F(Monitor, FileThatCanNotBeOpenedKeepsAPrinterPublished) {
  const Log log =
      Run({{true, kOnePrinter}, {false, ""}, {false, ""}, {true, kOnePrinter}, {true, ""}});
  EXPECT_EQ(log.out, std::string("[Bonjour] device insert lp0\n") + kCannotOpen + kCannotOpen +
                         "[Bonjour] device remove lp0\n");
  EXPECT_EQ(log.err, "");
  EXPECT_EQ(fakeServices.calls.size(), 4u);
}

TEST_F(Monitor, FileThatCanNotBeOpenedPublishesNothing) {
  const Log log = Run({{false, kOnePrinter}});
  EXPECT_EQ(log.out, kCannotOpen);
  EXPECT_EQ(Story(), "");
}

TEST_F(Monitor, PrinterIsTriedAgainOnceItWasAbsentForAPass) {
  fakeServices.result = 0;
  Run({{true, kOnePrinter}, {true, kOnePrinter}, {true, ""}, {true, kOnePrinter}, {true, ""}});
  EXPECT_EQ(Story(),
            "+0 pdl HP Model 12 (aa:0b:c0) 0\n"
            "+0 ipp HP Model 12 (aa:0b:c0) 0\n"
            "-0 pdl HP Model 12 (aa:0b:c0) 0\n"
            "-0 ipp HP Model 12 (aa:0b:c0) 0\n"
            "+0 pdl HP Model 12 (aa:0b:c0) 0\n"
            "+0 ipp HP Model 12 (aa:0b:c0) 0\n"
            "-0 pdl HP Model 12 (aa:0b:c0) 0\n"
            "-0 ipp HP Model 12 (aa:0b:c0) 0\n");
}

TEST_F(Monitor, RemovalGoesUnderTheNameOfTheLastPassThatSawThePrinter) {
  Run({{true, kOnePrinter}, {true, "usblp0\nHP\nModel 13\nPCL\n\n"}, {false, ""}, {true, ""}});
  EXPECT_EQ(Story(),
            "+0 pdl HP Model 12 (aa:0b:c0) 0\n"
            "+0 ipp HP Model 12 (aa:0b:c0) 0\n"
            "-0 pdl HP Model 13 (aa:0b:c0) 0\n"
            "-0 ipp HP Model 13 (aa:0b:c0) 0\n");
}

TEST_F(Monitor, RecordThatLosesItsThirdLineWithdrawsThePrinter) {
  const Log log = Run({{true, kOnePrinter}, {true, "usblp0\nHP\nModel 12"}});
  EXPECT_EQ(log.out, "[Bonjour] device insert lp0\n[Bonjour] device remove lp0\n");
}

TEST_F(Monitor, MalformedRecordWithdrawsThePrintersBehindIt) {
  const Log log = Run({{true, "usblp0\nA\nM\nX\n\nusblp1\nB\nN\nY\n\n"},
                       {true, "usblp0\nA\nM\nX\nusblp1\nB\nN\nY\n\n"},
                       {true, ""}});
  EXPECT_EQ(log.out,
            "[Bonjour] device insert lp0\n[Bonjour] device insert lp1\n"
            "[Bonjour] device remove lp1\n[Bonjour] device remove lp0\n");
}

TEST_F(Monitor, TextEndsAtAZeroByte) {
  const Log log = Run({{true, std::string("usblp0\nA\nM\0\nX\n\n", 15)}});
  EXPECT_EQ(log.out, "");
}

TEST_F(Monitor, ShorterFileLeavesNothingOfALongerOne) {
  const Log log =
      Run({{true, "usblp0\nA\nM\nX\n\nusblp1\nB\nN\nY\n\n"}, {true, "usblp0\nA\nM\n"}, {true, ""}});
  EXPECT_EQ(log.out,
            "[Bonjour] device insert lp0\n[Bonjour] device insert lp1\n"
            "[Bonjour] device remove lp1\n[Bonjour] device remove lp0\n");
}

TEST_F(Monitor, RecordAtTheVeryEndOfTheLargestFileIsSeen) {
  // 40,950 characters of complete records of another port, then ten of this one.
  std::string text = "usblp1\n" + Times(40937, 'a') + "\nM\n\n\n";
  text += "usblp0\n\n\n";
  ASSERT_EQ(text.size(), 40958u);
  text.insert(7, "aa");
  const Log log = Run({{true, text}, {true, ""}});
  EXPECT_EQ(log.out,
            "[Bonjour] device insert lp0\n[Bonjour] device insert lp1\n"
            "[Bonjour] device remove lp0\n[Bonjour] device remove lp1\n");
}

TEST_F(Monitor, PausesOneSecondAfterEveryPass) {
  Run({{true, ""}, {false, ""}, {true, kOnePrinter}, {true, ""}});
  EXPECT_EQ(pauses, (std::vector<unsigned>{1, 1, 1, 1}));
}

TEST_F(Monitor, StopBeforeTheFirstPassReadsNothing) {
  bTerminate.Set(1);
  const Log log = Run({{true, kOnePrinter}});
  EXPECT_EQ(log.out, "");
  EXPECT_EQ(fakeStatusFile.reads, 0);
  EXPECT_TRUE(pauses.empty());
}

TEST_F(Monitor, StopLeavesPrintersRegisteredAndTheirTextsAlive) {
  const Log log = Run({{true, kOnePrinter}});
  EXPECT_EQ(log.out, "[Bonjour] device insert lp0\n");
  EXPECT_EQ(Story(),
            "+0 pdl HP Model 12 (aa:0b:c0) 0\n"
            "+0 ipp HP Model 12 (aa:0b:c0) 0\n");
  ASSERT_NE(printerTxtPdl[0], nullptr);
  ASSERT_NE(printerTxtIpp[0], nullptr);
  EXPECT_STREQ(printerTxtPdl[0]->text, "x");
  EXPECT_STREQ(printerTxtIpp[0]->text, "x");
}

TEST_F(Monitor, LackOfMemoryAtTheStartEndsItAtOnce) {
  callocFault.FailCall(1);
  const Log log = LogOf([] { EXPECT_EQ(CheckUsbDevice(nullptr), nullptr); });
  EXPECT_TRUE(callocFault.HasStruck());
  EXPECT_EQ(log.err, "[Bonjour] malloc error: Cannot allocate memory\n");
  EXPECT_EQ(log.out, "");
  EXPECT_EQ(fakeStatusFile.reads, 0);
}

TEST_F(Monitor, StartsWithEmptyTables) {
  PrinterTxt stale = {};
  for (int32_t port = 0; port < 10; ++port) {
    printerTxtPdl[port] = &stale;
    printerTxtIpp[port] = &stale;
    memset(printerServiceNames[port], 'x', 128);
  }
  Run({{true, ""}});
  for (int32_t port = 0; port < 10; ++port) {
    EXPECT_EQ(printerTxtPdl[port], nullptr);
    EXPECT_EQ(printerTxtIpp[port], nullptr);
    EXPECT_EQ(std::string_view(printerServiceNames[port], 129), std::string_view(Times(129, '\0')));
  }
}

}  // namespace
