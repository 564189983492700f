#include "records/registration.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "mdns/state.h"
#include "records/registry.h"
#include "tests/support/fake_sender.h"
#include "tests/support/fault.h"
#include "tests/support/network.h"
#include "tests/support/output.h"

namespace {

class RegistrationTest : public testing::Test {
 protected:
  RegistrationTest() {
    responderState.interfaceAddress[0].Set(SocketAddress("192.168.1.1", 0).sin_addr.s_addr);
    responderState.connected[0].Set(1);
    SetDeviceName("T5140");
    ForgetSentPackets();
  }
  ~RegistrationTest() override {
    StdoutOf([] {
      while (ServiceRegistryUpdate(SERVICE_REMOVE, "", "", "", nullptr, 0, 0) != 0) {
      }
    });
  }

  static uint32_t Register(const char* domain = ".local", const char* txt = "a", int32_t length = 1,
                           uint32_t port = 631) {
    return RegisterOneService("Office", "_ipp._tcp", domain, txt, length, port);
  }
  static uint32_t UnRegister(const char* domain = ".local", uint32_t port = 631) {
    return UnRegisterOneService("Office", "_ipp._tcp", domain, "a", 1, port);
  }
  static bool IsRegistered() { return ServiceLookup("Office", "_ipp._tcp", ".local") != 0; }
};

TEST_F(RegistrationTest, RegistersAndSendsProbeAndAnnouncement) {
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Register(), 1u); }), "");
  EXPECT_TRUE(IsRegistered());
  const std::vector<SentPacket> sent = SentPackets();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(Hex(std::span(sent[0].bytes).first(25)),
            WireHex("00 00 00 00 00 02 00 00 00 02 00 00 05 'T5140' 05 'local' 00"));
  EXPECT_EQ(Hex(std::span(sent[1].bytes).first(25)),
            WireHex("00 00 84 00 00 00 00 05 00 00 00 00 05 'T5140' 05 'local' 00"));
}

TEST_F(RegistrationTest, HandsOnEveryParameter) {
  EXPECT_EQ(Register(".local", "key=value", 9, 9100), 1u);
  ServiceEntry entry;
  ASSERT_FALSE(CloseRegistryIfEmpty(entry));
  EXPECT_STREQ(entry.serviceName, "Office");
  EXPECT_STREQ(entry.serviceType, "_ipp._tcp");
  EXPECT_STREQ(entry.serviceDomain, ".local");
  EXPECT_STREQ(entry.txt, "key=value");
  EXPECT_EQ(entry.txtLength, 9);
  EXPECT_EQ(entry.port, 9100u);
  const std::string announcement = Hex(SentPackets()[1].bytes);
  EXPECT_NE(announcement.find(WireHex("00 0A 09 'key=value'")), std::string::npos);
  EXPECT_NE(announcement.find(WireHex("00 00 00 00 23 8C 05 'T5140' 05 'local' 00")),
            std::string::npos);
}

TEST_F(RegistrationTest, DeviceNameOf64CharactersIsUsedWhole) {
  SetDeviceName(std::string(64, 'x'));
  EXPECT_EQ(Register(), 1u);
  EXPECT_EQ(Hex(std::span(SentPackets()[0].bytes).subspan(12, 72)),
            WireHex("40 64*'x' 05 'local' 00"));
}

TEST_F(RegistrationTest, SecondRegistrationIsRefusedAndSendsNothing) {
  Register();
  ForgetSentPackets();
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Register(), 0u); }),
            "[Bonjour] this service: Office _ipp._tcp .local is already registered\n"
            "[Bonjour] SERVICE_ADD error\n");
  EXPECT_EQ(SentPackets().size(), 0u);
}

TEST_F(RegistrationTest, OtherDomainIsRefused) {
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Register("local."), 0u); }),
            "[Bonjour] sorry, we now only support '.local' service domain\n"
            "[Bonjour] Input parameter error\n");
  EXPECT_FALSE(IsRegistered());
  EXPECT_EQ(SentPackets().size(), 0u);
}

TEST_F(RegistrationTest, TextOfNoLengthIsRefused) {
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Register(".local", "", 0), 0u); }),
            "[Bonjour] Input parameter error\n");
  EXPECT_FALSE(IsRegistered());
  EXPECT_EQ(SentPackets().size(), 0u);
}

TEST_F(RegistrationTest, MissingTextIsAnnouncedEmpty) {
  EXPECT_EQ(Register(".local", nullptr, 0), 1u);
  EXPECT_NE(Hex(SentPackets()[1].bytes).find(WireHex("00 10 80 01 00 00 11 94 00 00 0A '_univ'")),
            std::string::npos);
}

TEST_F(RegistrationTest, PortBeyondTheLastIsRefused) {
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Register(".local", "a", 1, 65536), 0u); }),
            "[Bonjour] Input parameter error\n");
  EXPECT_FALSE(IsRegistered());
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

TEST_F(RegistrationTest, WithoutMemoryForTheEntryNothingIsRegistered) {
  CapturedOutput output;
  callocFault.FailCall(1);
  EXPECT_EQ(Register(), 0u);
  EXPECT_EQ(output.Stderr(), "[Bonjour] malloc error: Cannot allocate memory\n");
  EXPECT_EQ(output.Stdout(), "[Bonjour] SERVICE_ADD error\n");
  EXPECT_FALSE(IsRegistered());
  EXPECT_EQ(SentPackets().size(), 0u);
}

constexpr char kOfficeGoodbye[] =
    "00 00 84 00 00 00 00 02 00 00 00 00"
    " 04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01 00 00 00 00 00 18"
    " 06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00"
    " 0A '_universal' 04 '_sub' 04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01 00 00 00 00 00 18"
    " 06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00";

TEST_F(RegistrationTest, NothingIsRegisteredOnceRegistrationIsClosed) {
  CloseRegistration();
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Register(), 0u); }), "[Bonjour] SERVICE_ADD error\n");
  EXPECT_FALSE(IsRegistered());
  EXPECT_TRUE(SentPackets().empty());
  EXPECT_FALSE(IsRegistrationUnderWay());
}

TEST_F(RegistrationTest, ParametersAreCheckedBeforeTheClosedRegistration) {
  CloseRegistration();
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Register(".local", "a", 1, 65536), 0u); }),
            "[Bonjour] Input parameter error\n");
}

TEST_F(RegistrationTest, RegistrationIsUnderWayUntilBothPacketsAreHandedOver) {
  static std::vector<bool> underWay;
  underWay.clear();
  EXPECT_FALSE(IsRegistrationUnderWay());
  onSendPacket = [] {
    CloseRegistration();
    underWay.push_back(IsRegistrationUnderWay());
  };
  EXPECT_EQ(Register(), 1u);
  EXPECT_EQ(underWay, (std::vector<bool>{true, true}));
  EXPECT_FALSE(IsRegistrationUnderWay());
  EXPECT_TRUE(IsRegistered());
}

TEST_F(RegistrationTest, UnregisteringGoesOnOnceRegistrationIsClosed) {
  Register();
  ForgetSentPackets();
  CloseRegistration();
  EXPECT_EQ(UnRegister(), 1u);
  EXPECT_EQ(SentPackets().size(), 1u);
  EXPECT_FALSE(IsRegistered());
}

TEST_F(RegistrationTest, UnregisteringSendsTheGoodbyeAndRemoves) {
  Register();
  ForgetSentPackets();
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(UnRegister(), 1u); }), "");
  EXPECT_FALSE(IsRegistered());
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Hex(SentPackets()[0].bytes), WireHex(kOfficeGoodbye));
}

TEST_F(RegistrationTest, GoodbyeGoesOutBeforeTheRegistryIsAsked) {
  Register();
  static bool wasRegistered;
  wasRegistered = false;
  onSendPacket = [] { wasRegistered = IsRegistered(); };
  UnRegister();
  onSendPacket = nullptr;
  EXPECT_TRUE(wasRegistered);
}

TEST_F(RegistrationTest, ServiceIsStoredBeforeItsPacketsGoOut) {
  static int calls;
  calls = 0;
  onSendPacket = [] { calls += IsRegistered() ? 1 : 0; };
  Register();
  onSendPacket = nullptr;
  EXPECT_EQ(calls, 2);
}

TEST_F(RegistrationTest, UnregisteringTheUnknownSendsItsGoodbyeAllTheSame) {
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(UnRegister(), 0u); }),
            "[Bonjour] this service: Office _ipp._tcp .local is not registered\n"
            "[Bonjour] SERVICE_REMOVE error\n");
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Hex(SentPackets()[0].bytes), WireHex(kOfficeGoodbye));
}

TEST_F(RegistrationTest, UnregisteringChecksThePortItDoesNotUse) {
  Register();
  ForgetSentPackets();
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(UnRegister(".local", 70000), 0u); }),
            "[Bonjour] Input parameter error\n");
  EXPECT_TRUE(IsRegistered());
  EXPECT_EQ(SentPackets().size(), 0u);
}

TEST_F(RegistrationTest, UnregisteringChecksTheDomain) {
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(UnRegister("local."), 0u); }),
            "[Bonjour] sorry, we now only support '.local' service domain\n"
            "[Bonjour] Input parameter error\n");
  EXPECT_EQ(SentPackets().size(), 0u);
}

TEST_F(RegistrationTest, FailedGoodbyeLeavesTheServiceRegistered) {
  Register();
  ForgetSentPackets();
  CapturedOutput output;
  callocFault.FailCall(1);
  EXPECT_EQ(UnRegister(), 0u);
  EXPECT_TRUE(callocFault.HasStruck());
  EXPECT_EQ(output.Stderr(), "[Bonjour] malloc error: Cannot allocate memory\n");
  EXPECT_EQ(output.Stdout(), "[Bonjour] PacketsComposeRemove error\n");
  EXPECT_TRUE(IsRegistered());
}

TEST_F(RegistrationTest, WorksWithoutTheBridge) {
  responderState.connected[0].Set(0);
  EXPECT_EQ(Register(), 1u);
  EXPECT_TRUE(IsRegistered());
  EXPECT_EQ(UnRegister(), 1u);
  EXPECT_FALSE(IsRegistered());
  EXPECT_EQ(SentPackets().size(), 0u);
}

TEST_F(RegistrationTest, ServicesComeAndGoFromTwoThreadsWhileTheNameChanges) {
  constexpr int kRounds = 200;
  std::atomic<int> running{2};
  StdoutOf([&] {
    const auto work = [&] {
      for (int round = 0; round < kRounds; ++round) {
        Register();
        UnRegister();
      }
      --running;
    };
    std::thread first(work);
    std::thread second(work);
    for (uint32_t i = 0; running > 0; ++i) {
      SetDeviceName(i % 2 == 0 ? "T5140" : "T5140-1");
      responderState.interfaceAddress[0].Set(i);
      responderState.connected[0].Set(i % 2);
    }
    first.join();
    second.join();
    // Both may have added the service at the same time; each thread took one out.
    while (UnRegister() != 0) {
    }
  });
  EXPECT_FALSE(IsRegistered());
}

}  // namespace
