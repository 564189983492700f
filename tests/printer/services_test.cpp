#include "printer/services.h"

#include <gtest/gtest.h>

#include <string>

#include "base/text.h"
#include "tests/support/case_name.h"
#include "tests/support/fake_printer_device.h"
#include "tests/support/fake_responder.h"
#include "tests/support/fake_status_file.h"
#include "tests/support/log_capture.h"

namespace {

constexpr char kPort3Ipp[] =
    "txtvers=1\nqtotal=1\npdl=application/PCL\nusb_CLS=PRINTER\nrp=USB4_LQ\nty=Laser\n"
    "product=(ACME Laser)\nusb_MFG=ACME\nusb_MDL=Laser\nnote=router\nusb_CMD=PCL\npriority=10";
constexpr char kPort3Lpd[] =
    "txtvers=1\nqtotal=1\npdl=application/PCL\nusb_CLS=PRINTER\nrp=USB4_LQ\nty=Laser\n"
    "product=(ACME Laser)\nusb_MFG=ACME\nusb_MDL=Laser\nnote=router\nusb_CMD=PCL\npriority=30";
constexpr char kPort3Pdl[] =
    "txtvers=1\nqtotal=1\npdl=application/PCL\nusb_CLS=PRINTER\nty=Laser\n"
    "product=(ACME Laser)\nusb_MFG=ACME\nusb_MDL=Laser\nnote=router\nusb_CMD=PCL\npriority=20";
constexpr char kPort3Other[] =
    "txtvers=1\nqtotal=1\npdl=application/PCL\nusb_CLS=PRINTER\nty=Laser\n"
    "product=(ACME Laser)\nusb_MFG=ACME\nusb_MDL=Laser\nnote=router\nusb_CMD=PCL\n";

class PrinterServices : public testing::Test {
 protected:
  void SetUp() override {
    fakeResponder = {};
    fakeStatusFile = {};
    fakeResponder.deviceName = "router";
    fakeStatusFile.text = "usblp3\nACME\nLaser\nPCL\n\n";
    CopyText(printerServiceNames[3], "ACME Laser (aa:bb:cc) 3");
    CopyText(printerServiceNames[4], "Another printer");
  }

  Log Update(int32_t port, uint32_t action, int32_t kind) {
    return LogOf([&] { result = UpdatePrinterService(port, action, kind, txt); });
  }

  char txt[513] = {};
  uint32_t result = 2;
};

struct KindCase {
  const char* name;
  int32_t kind;
  const char* type;
  uint32_t tcpPort;
  const char* text;
};

class KindTest : public PrinterServices, public testing::WithParamInterface<KindCase> {};

TEST_P(KindTest, IsRegisteredWithItsTypePortAndText) {
  const KindCase& row = GetParam();
  const Log log = Update(3, 1, row.kind);
  EXPECT_EQ(result, 1u);
  ASSERT_EQ(fakeResponder.calls.size(), 1u);
  const RegistrationCall& call = fakeResponder.calls[0];
  EXPECT_TRUE(call.registers);
  EXPECT_EQ(call.name, "ACME Laser (aa:bb:cc) 3");
  EXPECT_EQ(call.type, row.type);
  EXPECT_EQ(call.domain, ".local");
  EXPECT_EQ(call.txt, txt);
  EXPECT_EQ(call.text, row.text);
  EXPECT_EQ(call.txtLength, static_cast<int32_t>(strlen(row.text)));
  EXPECT_EQ(call.port, row.tcpPort);
  EXPECT_EQ(log.out, "");
  EXPECT_EQ(log.err, "");
}

TEST_P(KindTest, IsUnregisteredWithoutText) {
  const KindCase& row = GetParam();
  CopyText(txt, "whatever the buffer holds");
  const Log log = Update(3, 0, row.kind);
  EXPECT_EQ(result, 1u);
  ASSERT_EQ(fakeResponder.calls.size(), 1u);
  const RegistrationCall& call = fakeResponder.calls[0];
  EXPECT_FALSE(call.registers);
  EXPECT_EQ(call.name, "ACME Laser (aa:bb:cc) 3");
  EXPECT_EQ(call.type, row.type);
  EXPECT_EQ(call.domain, ".local");
  EXPECT_EQ(call.txt, nullptr);
  EXPECT_EQ(call.txtLength, 0);
  EXPECT_EQ(call.port, row.tcpPort);
  EXPECT_EQ(fakeStatusFile.reads, 0);
  EXPECT_STREQ(txt, "whatever the buffer holds");
  EXPECT_EQ(log.out, "");
  EXPECT_EQ(log.err, "");
}

INSTANTIATE_TEST_SUITE_P(, KindTest,
                         testing::Values(KindCase{"RawPort", 1, "_pdl-datastream._tcp", 9103,
                                                  kPort3Pdl},
                                         KindCase{"Ipp", 2, "_ipp._tcp", 631, kPort3Ipp},
                                         KindCase{"Lpd", 3, "_printer._tcp", 515, kPort3Lpd}),
                         CaseName());

TEST_F(PrinterServices, UnknownKindBuildsItsTextAndRegistersNothing) {
  const Log log = Update(3, 1, 4);
  EXPECT_EQ(result, 0u);
  EXPECT_STREQ(txt, kPort3Other);
  EXPECT_TRUE(fakeResponder.calls.empty());
  EXPECT_EQ(log.out, "");
  EXPECT_EQ(log.err, "");
}

TEST_F(PrinterServices, UnknownKindUnregistersNothing) {
  for (const int32_t kind : {0, 4, -1}) {
    const Log log = Update(3, 0, kind);
    EXPECT_EQ(result, 0u);
    EXPECT_EQ(log.out, "");
  }
  EXPECT_TRUE(fakeResponder.calls.empty());
}

TEST_F(PrinterServices, AnyOtherActionDoesNothing) {
  for (const uint32_t action : {2u, 3u, 0xffffffffu}) {
    const Log log = Update(3, action, 1);
    EXPECT_EQ(result, 0u);
    EXPECT_EQ(log.out, "");
    EXPECT_EQ(log.err, "");
  }
  EXPECT_TRUE(fakeResponder.calls.empty());
  EXPECT_EQ(fakeStatusFile.reads, 0);
  EXPECT_STREQ(txt, "");
}

TEST_F(PrinterServices, PortWithoutRecordIsNotRegistered) {
  const Log log = Update(4, 1, 1);
  EXPECT_EQ(result, 0u);
  EXPECT_EQ(log.out, "[Bonjour] GetTXTData error\n");
  EXPECT_TRUE(fakeResponder.calls.empty());
}

TEST_F(PrinterServices, TextThatDoesNotFitIsNotRegistered) {
  fakeStatusFile.text = "usblp3\nACME\nLaser\n" + std::string(119, 'c') + "\n\n";
  const Log log = Update(3, 1, 1);
  EXPECT_EQ(log.out, "[Bonjour] GetTXTData error\n");
  EXPECT_TRUE(fakeResponder.calls.empty());
}

TEST_F(PrinterServices, TextThatCannotBeHadIsLoggedForAnUnknownKindToo) {
  EXPECT_EQ(Update(4, 1, 4).out, "[Bonjour] GetTXTData error\n");
}

TEST_F(PrinterServices, FailedRegistrationIsLogged) {
  fakeResponder.result = 0;
  const Log log = Update(3, 1, 2);
  EXPECT_EQ(result, 0u);
  EXPECT_EQ(log.out, "**********RegisterOneService error*************\n");
  EXPECT_EQ(fakeResponder.calls.size(), 1u);
}

TEST_F(PrinterServices, FailedUnregistrationIsLogged) {
  fakeResponder.result = 0;
  const Log log = Update(3, 0, 2);
  EXPECT_EQ(result, 0u);
  EXPECT_EQ(log.out, "**********UnRegisterOneService error*************\n");
  EXPECT_EQ(fakeResponder.calls.size(), 1u);
}

TEST_F(PrinterServices, ResultOfTheRegistrationIsHandedOn) {
  fakeResponder.result = 7;
  Update(3, 1, 1);
  EXPECT_EQ(result, 7u);
  Update(3, 0, 1);
  EXPECT_EQ(result, 7u);
}

TEST_F(PrinterServices, PortTenPassesTheTcpPortZero) {
  Update(10, 0, 1);
  ASSERT_EQ(fakeResponder.calls.size(), 1u);
  EXPECT_EQ(fakeResponder.calls[0].port, 0u);
  EXPECT_EQ(fakeResponder.calls[0].name, "");
}

TEST_F(PrinterServices, PortBelowZeroHasNoName) {
  Update(-1, 0, 1);
  ASSERT_EQ(fakeResponder.calls.size(), 1u);
  EXPECT_EQ(fakeResponder.calls[0].port, 0u);
  EXPECT_EQ(fakeResponder.calls[0].name, "");
}

TEST_F(PrinterServices, NameIsThePortsEntryFromTheFirstPortToTheLast) {
  CopyText(printerServiceNames[0], "First printer");
  CopyText(printerServiceNames[9], "Last printer");
  for (const int32_t port : {0, 4, 9}) Update(port, 0, 2);
  ASSERT_EQ(fakeResponder.calls.size(), 3u);
  EXPECT_EQ(fakeResponder.calls[0].name, "First printer");
  EXPECT_EQ(fakeResponder.calls[1].name, "Another printer");
  EXPECT_EQ(fakeResponder.calls[2].name, "Last printer");
}

TEST(PrinterTcpPort, OfTheRawPortCountsUpFromNinetyOneHundred) {
  EXPECT_EQ(PrinterTcpPort(1, 0), 9100u);
  EXPECT_EQ(PrinterTcpPort(1, 3), 9103u);
  EXPECT_EQ(PrinterTcpPort(1, 9), 9109u);
}

TEST(PrinterTcpPort, OfTheRawPortIsZeroOutsideTheTable) {
  EXPECT_EQ(PrinterTcpPort(1, 10), 0u);
  EXPECT_EQ(PrinterTcpPort(1, -1), 0u);
}

TEST(PrinterTcpPort, OfTheOtherKindsIsTheSameForEveryPort) {
  for (const int32_t port : {-1, 0, 9, 10}) {
    EXPECT_EQ(PrinterTcpPort(2, port), 631u);
    EXPECT_EQ(PrinterTcpPort(3, port), 515u);
    EXPECT_EQ(PrinterTcpPort(0, port), 0u);
    EXPECT_EQ(PrinterTcpPort(4, port), 0u);
  }
}

TEST(PrinterServiceType, IsNullForAKindThatDoesNotExist) {
  EXPECT_STREQ(PrinterServiceType(1), "_pdl-datastream._tcp");
  EXPECT_STREQ(PrinterServiceType(2), "_ipp._tcp");
  EXPECT_STREQ(PrinterServiceType(3), "_printer._tcp");
  EXPECT_EQ(PrinterServiceType(0), nullptr);
  EXPECT_EQ(PrinterServiceType(4), nullptr);
  EXPECT_EQ(PrinterServiceType(-1), nullptr);
}

}  // namespace
