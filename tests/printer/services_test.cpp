#include "printer/services.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "base/text.h"
#include "tests/support/fake_printer.h"
#include "tests/support/fake_responder.h"
#include "tests/support/output.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

constexpr char kNoText[] = "[Bonjour] GetTXTData error\n";

class PrinterServices : public testing::Test {
 protected:
  PrinterServices() {
    fakeResponder = {};
    fakeResponder.deviceName = "router";
    fakeStatusFile = {};
    fakeStatusFile.text = "usblp3\nACME\nLaser\nPCL\n\n";
    CopyText(printerServiceNames[3], "ACME Laser (aa:bb:cc) 3");
  }

  // Returns what was logged.
  std::string Update(int32_t port, uint32_t action, int32_t kind, uint32_t result) {
    const Log log =
        LogOf([&] { EXPECT_EQ(UpdatePrinterService(port, action, kind, txt), result); });
    EXPECT_EQ(log.err, "");
    return log.out;
  }

  char txt[513] = {};
};

TEST_F(PrinterServices, KindIsRegisteredWithItsTypePortAndTextAndUnregisteredWithoutText) {
  const struct {
    int32_t kind;
    const char* type;
    uint32_t tcpPort;
    const char* textEnd;
  } rows[] = {{1, "_pdl-datastream._tcp", 9103, "\npriority=20"},
              {2, "_ipp._tcp", 631, "\npriority=10"},
              {3, "_printer._tcp", 515, "\npriority=30"}};
  const std::string name = "ACME Laser (aa:bb:cc) 3";
  for (const auto& row : rows) {
    memset(txt, 0, sizeof(txt));
    fakeResponder.calls.clear();
    EXPECT_EQ(Update(3, 1, row.kind, 1), "");
    EXPECT_THAT(txt, EndsWith(row.textEnd));
    EXPECT_EQ(Update(3, 0, row.kind, 1), "");
    const auto length = static_cast<int32_t>(strlen(txt));
    EXPECT_THAT(
        fakeResponder.calls,
        ElementsAre(RegistrationCall{true, name, row.type, ".local", txt, length, row.tcpPort},
                    RegistrationCall{false, name, row.type, ".local", nullptr, 0, row.tcpPort}));
  }
  EXPECT_EQ(fakeStatusFile.reads, 3);
}

TEST_F(PrinterServices, UnknownKindBuildsItsTextAndRegistersAndUnregistersNothing) {
  EXPECT_EQ(Update(3, 1, 4, 0), "");
  EXPECT_THAT(txt, EndsWith("\nusb_CMD=PCL\n"));
  EXPECT_EQ(Update(3, 0, 4, 0), "");
  EXPECT_THAT(fakeResponder.calls, IsEmpty());
}

TEST_F(PrinterServices, AnyOtherActionDoesNothing) {
  EXPECT_EQ(Update(3, 2, 1, 0), "");
  EXPECT_THAT(fakeResponder.calls, IsEmpty());
  EXPECT_EQ(fakeStatusFile.reads, 0);
}

TEST_F(PrinterServices, TextThatCannotBeHadOrDoesNotFitIsLoggedForAnUnknownKindToo) {
  EXPECT_EQ(Update(4, 1, 1, 0), kNoText);
  EXPECT_EQ(Update(4, 1, 4, 0), kNoText);
  fakeStatusFile.text = "usblp3\nACME\nLaser\n" + std::string(119, 'c') + "\n\n";
  EXPECT_EQ(Update(3, 1, 1, 0), kNoText);
  EXPECT_THAT(fakeResponder.calls, IsEmpty());
}

TEST_F(PrinterServices, FailuresAreLoggedAndOtherResultsHandedOn) {
  fakeResponder.result = 0;
  EXPECT_EQ(Update(3, 1, 2, 0), "**********RegisterOneService error*************\n");
  EXPECT_EQ(Update(3, 0, 2, 0), "**********UnRegisterOneService error*************\n");
  fakeResponder.result = 7;
  EXPECT_EQ(Update(3, 1, 1, 7), "");
  EXPECT_EQ(Update(3, 0, 1, 7), "");
}

TEST_F(PrinterServices, NameIsThePortsEntryFromTheFirstPortToTheLastAndEmptyOutside) {
  CopyText(printerServiceNames[0], "First printer");
  CopyText(printerServiceNames[9], "Last printer");
  std::vector<std::string> names;
  for (const int32_t port : {-1, 0, 9, 10}) {
    Update(port, 0, 2, 1);
    names.push_back(fakeResponder.calls.back().name);
  }
  EXPECT_THAT(names, ElementsAre("", "First printer", "Last printer", ""));
}

TEST(PrinterTcpPort, OfTheRawPortCountsUpFrom9100WithinTheTableAndOthersAreTheSame) {
  EXPECT_EQ(PrinterTcpPort(1, -1), 0u);
  EXPECT_EQ(PrinterTcpPort(1, 0), 9100u);
  EXPECT_EQ(PrinterTcpPort(1, 9), 9109u);
  EXPECT_EQ(PrinterTcpPort(1, 10), 0u);
  for (const int32_t port : {-1, 0, 9, 10}) {
    EXPECT_EQ(PrinterTcpPort(2, port), 631u);
    EXPECT_EQ(PrinterTcpPort(3, port), 515u);
    EXPECT_EQ(PrinterTcpPort(4, port), 0u);
  }
}

}  // namespace
