// What the monitor does with the printers that it found: ApplyPresence for one pass, CheckUsbDevice
// (the thread) for a sequence of passes.
#include "printer/monitor.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "base/responder.h"
#include "base/text.h"
#include "tests/support/fake_services.h"
#include "tests/support/fake_sleep.h"
#include "tests/support/fake_status_file.h"
#include "tests/support/fault.h"
#include "tests/support/log_capture.h"

namespace {

constexpr uint8_t kMac[6] = {0x00, 0x11, 0x22, 0xAA, 0x0B, 0xC0};
constexpr char kOnePrinter[] = "usblp0\nHP\nModel 12\nPCL\n\n";

static_assert(sizeof(PrinterTxt::text) == 513, "a text takes 512 characters and its terminator");

// The registrations (+) and unregistrations (-) since the last look, a line each: port, kind, name.
std::string TakeCalls() {
  std::string calls;
  for (const ServiceCall& call : fakeServices.calls) {
    calls += call.action == 1 ? "+" : "-";
    calls += std::to_string(call.port) + (call.kind == 1   ? " pdl "
                                          : call.kind == 2 ? " ipp "
                                                           : " other ");
    calls += call.name + "\n";
  }
  fakeServices.calls.clear();
  return calls;
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
  EXPECT_EQ(TakeCalls(), "+0 pdl p0\n+0 ipp p0\n");
}

TEST_F(ApplyPresenceTest, RemovalUnregistersRawPortThenIpp) {
  Apply("0");
  TakeCalls();
  const Log log = Apply("");
  EXPECT_EQ(log.out, "[Bonjour] device remove lp0\n");
  EXPECT_EQ(log.err, "");
  EXPECT_EQ(TakeCalls(), "-0 pdl p0\n-0 ipp p0\n");
}

TEST_F(ApplyPresenceTest, NothingHappensToPortsThatStay) {
  Apply("09");
  TakeCalls();
  EXPECT_EQ(Apply("09").out, "");
  EXPECT_EQ(TakeCalls(), "");
}

TEST_F(ApplyPresenceTest, PortsAreHandledInOrderInsertionsAndRemovalsMixed) {
  Apply("13");
  TakeCalls();
  const Log log = Apply("0349");
  EXPECT_EQ(log.out,
            "[Bonjour] device insert lp0\n[Bonjour] device remove lp1\n"
            "[Bonjour] device insert lp4\n[Bonjour] device insert lp9\n");
  EXPECT_EQ(TakeCalls(),
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
  TakeCalls();
  Apply("7");
  EXPECT_EQ(TakeCalls(), "");
  Apply("");
  EXPECT_EQ(TakeCalls(), "-7 pdl p7\n-7 ipp p7\n");
}

TEST_F(ApplyPresenceTest, ServiceWithoutBufferIsNotUnregistered) {
  Apply("7");
  TakeCalls();
  PrinterTxt* const lost = printerTxtPdl[7];
  printerTxtPdl[7] = nullptr;
  const Log log = Apply("");
  EXPECT_EQ(log.out, "[Bonjour] device remove lp7\n");
  EXPECT_EQ(TakeCalls(), "-7 ipp p7\n");
  free(lost);
}

TEST_F(ApplyPresenceTest, ServiceWithoutMemoryForItsTextIsLeftOutAndTheOtherOneIsNot) {
  struct {
    int failedCall;
    const char* calls;
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
    EXPECT_EQ(TakeCalls(), row.calls);
  }
}

// Runs the monitor pass by pass, each with the file as it is then, without waiting.
class MonitorThread : public testing::Test {
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

constexpr char kCannotOpen[] = "[Bonjour] Can not open \"" BONJOUR_STATUS_FILE "\"\n";

TEST_F(MonitorThread, StartsWithEmptyTables) {
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
    EXPECT_EQ(std::string_view(printerServiceNames[port], 129),
              std::string_view(std::string(129, '\0')));
  }
}

TEST_F(MonitorThread, LackOfMemoryAtTheStartEndsItAtOnce) {
  callocFault.FailCall(1);
  const Log log = LogOf([] { EXPECT_EQ(CheckUsbDevice(nullptr), nullptr); });
  EXPECT_TRUE(callocFault.HasStruck());
  EXPECT_EQ(log.err, "[Bonjour] malloc error: Cannot allocate memory\n");
  EXPECT_EQ(log.out, "");
  EXPECT_EQ(fakeStatusFile.reads, 0);
}

TEST_F(MonitorThread, FirstPassPublishesAndTheNextOnesDoNothing) {
  const Log log = Run({{true, kOnePrinter}, {true, kOnePrinter}, {true, kOnePrinter}});
  EXPECT_EQ(log.out, "[Bonjour] device insert lp0\n");
  EXPECT_EQ(log.err, "");
  EXPECT_EQ(TakeCalls(),
            "+0 pdl HP Model 12 (aa:0b:c0) 0\n"
            "+0 ipp HP Model 12 (aa:0b:c0) 0\n");
  EXPECT_EQ(fakeStatusFile.reads, 3);
}

TEST_F(MonitorThread, PausesOneSecondAfterEveryPass) {
  Run({{true, ""}, {false, ""}, {true, kOnePrinter}, {true, ""}});
  EXPECT_EQ(pauses, (std::vector<unsigned>{1, 1, 1, 1}));
}

TEST_F(MonitorThread, EmptyFileWithdraws) {
  const Log log = Run({{true, kOnePrinter}, {true, ""}});
  EXPECT_EQ(log.out, "[Bonjour] device insert lp0\n[Bonjour] device remove lp0\n");
  EXPECT_EQ(TakeCalls(),
            "+0 pdl HP Model 12 (aa:0b:c0) 0\n"
            "+0 ipp HP Model 12 (aa:0b:c0) 0\n"
            "-0 pdl HP Model 12 (aa:0b:c0) 0\n"
            "-0 ipp HP Model 12 (aa:0b:c0) 0\n");
}

TEST_F(MonitorThread, FileThatCannotBeOpenedKeepsAPrinterPublished) {
  const Log log =
      Run({{true, kOnePrinter}, {false, ""}, {false, ""}, {true, kOnePrinter}, {true, ""}});
  EXPECT_EQ(log.out, std::string("[Bonjour] device insert lp0\n") + kCannotOpen + kCannotOpen +
                         "[Bonjour] device remove lp0\n");
  EXPECT_EQ(log.err, "");
  EXPECT_EQ(fakeServices.calls.size(), 4u);
}

TEST_F(MonitorThread, FileThatCannotBeOpenedPublishesNothing) {
  const Log log = Run({{false, kOnePrinter}});
  EXPECT_EQ(log.out, kCannotOpen);
  EXPECT_EQ(TakeCalls(), "");
}

TEST_F(MonitorThread, PrinterIsTriedAgainOnceItWasAbsentForAPass) {
  fakeServices.result = 0;
  Run({{true, kOnePrinter}, {true, kOnePrinter}, {true, ""}, {true, kOnePrinter}, {true, ""}});
  EXPECT_EQ(TakeCalls(),
            "+0 pdl HP Model 12 (aa:0b:c0) 0\n"
            "+0 ipp HP Model 12 (aa:0b:c0) 0\n"
            "-0 pdl HP Model 12 (aa:0b:c0) 0\n"
            "-0 ipp HP Model 12 (aa:0b:c0) 0\n"
            "+0 pdl HP Model 12 (aa:0b:c0) 0\n"
            "+0 ipp HP Model 12 (aa:0b:c0) 0\n"
            "-0 pdl HP Model 12 (aa:0b:c0) 0\n"
            "-0 ipp HP Model 12 (aa:0b:c0) 0\n");
}

TEST_F(MonitorThread, RemovalGoesUnderTheNameOfTheLastPassThatSawThePrinter) {
  Run({{true, kOnePrinter}, {true, "usblp0\nHP\nModel 13\nPCL\n\n"}, {false, ""}, {true, ""}});
  EXPECT_EQ(TakeCalls(),
            "+0 pdl HP Model 12 (aa:0b:c0) 0\n"
            "+0 ipp HP Model 12 (aa:0b:c0) 0\n"
            "-0 pdl HP Model 13 (aa:0b:c0) 0\n"
            "-0 ipp HP Model 13 (aa:0b:c0) 0\n");
}

TEST_F(MonitorThread, RecordThatLosesItsThirdLineWithdrawsThePrinter) {
  const Log log = Run({{true, kOnePrinter}, {true, "usblp0\nHP\nModel 12"}});
  EXPECT_EQ(log.out, "[Bonjour] device insert lp0\n[Bonjour] device remove lp0\n");
}

TEST_F(MonitorThread, MalformedRecordWithdrawsThePrintersAfterIt) {
  const Log log = Run({{true, "usblp0\nA\nM\nX\n\nusblp1\nB\nN\nY\n\n"},
                       {true, "usblp0\nA\nM\nX\nusblp1\nB\nN\nY\n\n"},
                       {true, ""}});
  EXPECT_EQ(log.out,
            "[Bonjour] device insert lp0\n[Bonjour] device insert lp1\n"
            "[Bonjour] device remove lp1\n[Bonjour] device remove lp0\n");
}

TEST_F(MonitorThread, ShorterFileLeavesNothingOfALongerOne) {
  const Log log =
      Run({{true, "usblp0\nA\nM\nX\n\nusblp1\nB\nN\nY\n\n"}, {true, "usblp0\nA\nM\n"}, {true, ""}});
  EXPECT_EQ(log.out,
            "[Bonjour] device insert lp0\n[Bonjour] device insert lp1\n"
            "[Bonjour] device remove lp1\n[Bonjour] device remove lp0\n");
}

TEST_F(MonitorThread, TextEndsAtAZeroByte) {
  const Log log = Run({{true, std::string("usblp0\nA\nM\0\nX\n\n", 15)}});
  EXPECT_EQ(log.out, "");
}

TEST_F(MonitorThread, RecordAtTheVeryEndOfTheLargestFileIsSeen) {
  // 40,950 characters of complete records of another port, then ten of this one.
  std::string text = "usblp1\n" + std::string(40937, 'a') + "\nM\n\n\n";
  text += "usblp0\n\n\n";
  ASSERT_EQ(text.size(), 40958u);
  text.insert(7, "aa");
  const Log log = Run({{true, text}, {true, ""}});
  EXPECT_EQ(log.out,
            "[Bonjour] device insert lp0\n[Bonjour] device insert lp1\n"
            "[Bonjour] device remove lp0\n[Bonjour] device remove lp1\n");
}

TEST_F(MonitorThread, StopBeforeTheFirstPassReadsNothing) {
  bTerminate.Set(1);
  const Log log = Run({{true, kOnePrinter}});
  EXPECT_EQ(log.out, "");
  EXPECT_EQ(fakeStatusFile.reads, 0);
  EXPECT_TRUE(pauses.empty());
}

TEST_F(MonitorThread, StopLeavesPrintersRegisteredAndTheirTextsAlive) {
  const Log log = Run({{true, kOnePrinter}});
  EXPECT_EQ(log.out, "[Bonjour] device insert lp0\n");
  EXPECT_EQ(TakeCalls(),
            "+0 pdl HP Model 12 (aa:0b:c0) 0\n"
            "+0 ipp HP Model 12 (aa:0b:c0) 0\n");
  ASSERT_NE(printerTxtPdl[0], nullptr);
  ASSERT_NE(printerTxtIpp[0], nullptr);
  EXPECT_STREQ(printerTxtPdl[0]->text, "x");
  EXPECT_STREQ(printerTxtIpp[0]->text, "x");
}

}  // namespace
