#include "records/registration.h"

#include <gtest/gtest.h>

#include <string>

#include "mdns/state.h"
#include "records/registry.h"
#include "tests/support/fake_sender.h"
#include "tests/support/fault.h"
#include "tests/support/network.h"
#include "tests/support/output.h"
#include "tests/support/registry.h"

namespace {

class RegistrationTest : public testing::Test {
 protected:
  RegistrationTest() {
    responderState.interfaceAddress[0].Set(SocketAddress("192.168.1.1", 0).sin_addr.s_addr);
    responderState.connected[0].Set(1);
    SetDeviceName("T5140");
    ForgetSentPackets();
  }
  ~RegistrationTest() override { EmptyRegistry(); }

  static uint32_t Register(uint32_t port = 631) {
    return RegisterOneService("Office", "_ipp._tcp", ".local", "a", 1, port);
  }
  static uint32_t UnRegister(uint32_t port = 631) {
    return UnRegisterOneService("Office", "_ipp._tcp", ".local", "a", 1, port);
  }
  static bool IsRegistered() { return ServiceLookup("Office", "_ipp._tcp", ".local") != 0; }
};

TEST_F(RegistrationTest, StoresTheServiceThenSendsProbeAndAnnouncement) {
  static int packetsOfAStoredService = 0;
  onSendPacket = [] { packetsOfAStoredService += IsRegistered() ? 1 : 0; };
  const char* const txt = "key=value";
  EXPECT_EQ(RegisterOneService("Office", "_ipp._tcp", ".local", txt, 9, 9100), 1u);
  onSendPacket = nullptr;
  ASSERT_EQ(packetsOfAStoredService, 2);
  ServiceEntry entry;
  ASSERT_FALSE(CloseRegistryIfEmpty(entry));
  EXPECT_STREQ(entry.serviceName, "Office");
  EXPECT_STREQ(entry.serviceType, "_ipp._tcp");
  EXPECT_STREQ(entry.serviceDomain, ".local");
  EXPECT_EQ(entry.txt, txt);
  EXPECT_EQ(entry.txtLength, 9);
  EXPECT_EQ(entry.port, 9100u);
  const std::string announcement = Hex(SentPackets()[1].bytes);
  EXPECT_NE(announcement.find(WireHex("00 0A 09 'key=value'")), std::string::npos);
  EXPECT_NE(announcement.find(WireHex("23 8C 05 'T5140' 05 'local' 00")), std::string::npos);
}

TEST_F(RegistrationTest, SecondRegistrationIsRefusedAndSendsNothing) {
  Register();
  ForgetSentPackets();
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Register(), 0u); }),
            "[Bonjour] this service: Office _ipp._tcp .local is already registered\n"
            "[Bonjour] SERVICE_ADD error\n");
  EXPECT_EQ(SentPackets().size(), 0u);
}

// The port too, which the opposite does not use.
TEST_F(RegistrationTest, WrongParametersAreRefusedBothWays) {
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Register(65536), 0u); }), "[Bonjour] Input parameter error\n");
  EXPECT_FALSE(IsRegistered());
  EXPECT_EQ(SentPackets().size(), 0u);
  Register();
  ForgetSentPackets();
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(UnRegister(65536), 0u); }),
            "[Bonjour] Input parameter error\n");
  EXPECT_TRUE(IsRegistered());
  EXPECT_EQ(SentPackets().size(), 0u);
}

TEST_F(RegistrationTest, FailedAnnouncementLeavesTheServiceRegistered) {
  CapturedOutput output;
  callocFault.FailCall(2);  // after the entry's own block
  EXPECT_EQ(Register(), 0u);
  EXPECT_TRUE(callocFault.HasStruck());
  EXPECT_EQ(output.Stderr(), "[Bonjour] malloc error: Cannot allocate memory\n");
  EXPECT_EQ(output.Stdout(), "[Bonjour] PacketsComposeAdd error\n");
  EXPECT_TRUE(IsRegistered());
  EXPECT_EQ(SentPackets().size(), 0u);
}

TEST_F(RegistrationTest, NothingIsRegisteredOnceRegistrationIsClosed) {
  Register();
  ForgetSentPackets();
  CloseRegistration();
  EXPECT_EQ(UnRegister(), 1u);
  EXPECT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Register(), 0u); }), "[Bonjour] SERVICE_ADD error\n");
  EXPECT_FALSE(IsRegistered());
  EXPECT_EQ(SentPackets().size(), 1u);
  EXPECT_FALSE(IsRegistrationUnderWay());
  // The parameters are checked before that.
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Register(65536), 0u); }), "[Bonjour] Input parameter error\n");
}

TEST_F(RegistrationTest, RegistrationIsUnderWayUntilBothPacketsAreHandedOver) {
  static std::vector<bool> underWay;
  EXPECT_FALSE(IsRegistrationUnderWay());
  onSendPacket = [] {
    CloseRegistration();
    underWay.push_back(IsRegistrationUnderWay());
  };
  EXPECT_EQ(Register(), 1u);
  EXPECT_EQ(underWay, (std::vector<bool>{true, true}));
  EXPECT_FALSE(IsRegistrationUnderWay());
}

TEST_F(RegistrationTest, UnregisteringSendsTheGoodbyeThenRemoves) {
  Register();
  ForgetSentPackets();
  static bool wasRegistered = false;
  onSendPacket = [] { wasRegistered = IsRegistered(); };
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(UnRegister(), 1u); }), "");
  onSendPacket = nullptr;
  EXPECT_TRUE(wasRegistered);
  EXPECT_FALSE(IsRegistered());
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Hex(std::span(SentPackets()[0].bytes).first(28)),
            WireHex("00 00 84 00 00 00 00 02 00 00 00 00 04 '_ipp' 04 '_tcp' 05 'local'"));
}

TEST_F(RegistrationTest, UnregisteringTheUnknownSendsItsGoodbyeAllTheSame) {
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(UnRegister(), 0u); }),
            "[Bonjour] this service: Office _ipp._tcp .local is not registered\n"
            "[Bonjour] SERVICE_REMOVE error\n");
  EXPECT_EQ(SentPackets().size(), 1u);
}

TEST_F(RegistrationTest, FailedGoodbyeLeavesTheServiceRegistered) {
  Register();
  CapturedOutput output;
  callocFault.FailCall(1);
  EXPECT_EQ(UnRegister(), 0u);
  EXPECT_TRUE(callocFault.HasStruck());
  EXPECT_EQ(output.Stderr(), "[Bonjour] malloc error: Cannot allocate memory\n");
  EXPECT_EQ(output.Stdout(), "[Bonjour] PacketsComposeRemove error\n");
  EXPECT_TRUE(IsRegistered());
}

}  // namespace
