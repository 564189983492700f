// Probing for the host name: the probe, what counts as a conflict, the next name, one whole pass.
#include "mdns/probe.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/support/bytes.h"
#include "tests/support/fake_sender.h"
#include "tests/support/fault.h"
#include "tests/support/network.h"
#include "tests/support/output.h"

namespace {

using testing::ElementsAre;

// The whole packet is cleared first.
TEST(ComposeHostProbe, IsOnePlainAddressQuestion) {
  Bytes bytes(1518, 0xEE);
  Packet packet = {bytes.data(), 1518, 0, {}};
  ComposeHostProbe(packet, std::string(64, 'x'));
  EXPECT_EQ(packet.length, 88);
  EXPECT_EQ(Hex(bytes), WireHex("00 00 00 00 00 01 00 00 00 00 00 00"
                                " 40 64*'x' 05 'local' 00 00 01 00 01 1430*00"));
}

struct ConflictRow {
  const char* behaviour;
  std::string deviceName;
  const char* wire;
  bool conflict;
  size_t needed = 19;  // bytes of the message without which there is none
};

const ConflictRow kConflictRows[] = {
    {"the same label", "router", "12*FF 06 'router' 05 'local' 00", true},
    {"one letter more", "router", "12*00 07 'routerx' 05 'local' 00", false},
    {"one letter less", "router", "12*00 05 'route' 05 'local' 00", false},
    {"another case", "router", "12*00 06 'Router' 05 'local' 00", false},
    {"another last letter", "router", "12*00 06 'routes' 05 'local' 00", false},
    {"a shorter length and the whole name", "router", "12*00 03 'router'", true},
    {"a label filled up with zeros", "router", "12*00 08 'router' 00 00", true, 21},
    {"a label cut short", "router", "12*00 06 'route'", false},
    {"no label", "", "12*00", false},
    {"no name and no label", "", "12*00 00", true, 13},
    {"the longest field", std::string(64, 'x'), "12*00 41 64*'x' 00", true, 78},
    {"beyond the longest field", std::string(64, 'x'), "12*00 42 64*'x' 00 00", false},
};

TEST(IsNameConflict, ComparesTheFirstLabelWithTheName) {
  for (const ConflictRow& row : kConflictRows) {
    SCOPED_TRACE(row.behaviour);
    char name[kDeviceNameSize] = {};
    row.deviceName.copy(name, 64);
    const Bytes whole = Wire(row.wire);
    for (size_t size = 0; size <= whole.size(); ++size) {
      ExactBytes message(std::span<const uint8_t>(whole).first(size));
      const bool conflict = IsNameConflict(MessageReader(message.Data(), size), name);
      EXPECT_EQ(conflict, row.conflict && size >= row.needed) << size;
    }
  }
}

TEST(SetNumberedName, IsTheDeviceNameAndTheNumberWhereBothFit) {
  struct Row {
    size_t length;
    int32_t number;
    const char* suffix;  // null: the name is left
  };
  for (const Row& row : {Row{5, 1, "-1"}, Row{62, 9, "-9"}, Row{63, 9, nullptr},
                         Row{62, 10, nullptr}, Row{60, 999, "-999"}, Row{0, 1, "-1"}}) {
    char name[kDeviceNameSize] = {};
    memset(name, 'o', 64);
    const std::string deviceName(row.length, 'd');
    SetNumberedName(name, deviceName, row.number);
    std::string expected = row.suffix == nullptr ? std::string(64, 'o') : deviceName + row.suffix;
    expected.resize(65);
    EXPECT_EQ(std::string(name, 65), expected);
  }
}

// One pass of probing

std::vector<unsigned> pauses;

class CheckNameTest : public testing::Test {
 protected:
  CheckNameTest() {
    responderState.interfaceAddress[0].Set(inet_addr("127.0.0.1"));
    responderState.mdnsDestination = SocketAddress("224.0.0.251", 5353);
    own.SetReceiveTimeout(20);
    record.socket = own.Get();
    SetDeviceName("router");
    strcpy(record.name, "router");
    ForgetSentPackets();
    onUsleep = [](unsigned microseconds) { pauses.push_back(microseconds); };
    // Answers to the nth probe; they are there before the listening begins.
    onSendPacket = [this] {
      const size_t probe = SentPackets().size() - 1;
      if (probe < answers.size()) {
        for (const std::string& answer : answers[probe]) other.Send(Wire(answer), own.Name());
      }
    };
  }
  ~CheckNameTest() override {
    onSendPacket = nullptr;
    onUsleep = nullptr;
    bTerminate.Set(0);
  }

  std::string Run() {
    return StdoutOf([this] { EXPECT_EQ(MDNS_CheckName(&record), nullptr); });
  }
  static std::string Claim(const std::string& name) {
    const uint8_t length[] = {static_cast<uint8_t>(name.size())};
    return "12*00 " + Hex(length) + " '" + name + "' 05 'local' 00 00 01 00 01";
  }
  static std::vector<std::string> Others(size_t count) {
    return std::vector<std::string>(count, Claim("other"));
  }
  // The first label that the nth probe asks for.
  static std::string Probed(size_t n) {
    const Bytes bytes = SentPackets().at(n).bytes;
    return {bytes.begin() + 13, bytes.begin() + 13 + bytes.at(12)};
  }

  const OwnNetwork network;
  const UdpSocket own{"127.0.0.1"};
  const UdpSocket other{"127.0.0.2"};
  std::vector<std::vector<std::string>> answers;
  ProbeRecord record{};
};

constexpr char kTimeout[] = "[Bonjour] MDNS_CheckName: receive packet timeout\n";
constexpr char kLimit[] = "[Bonjour] MDNS_CheckName: ignorePackets limits.\n";
constexpr char kRepeat[] = "[Bonjour] MDNS_CheckName: device name repeat\n";

TEST_F(CheckNameTest, StopBeforeTheStartSendsNothing) {
  bTerminate.Set(1);
  EXPECT_EQ(Run(), "");
  EXPECT_EQ(SentPackets().size(), 0u);
}

TEST_F(CheckNameTest, NameIsKeptOnASilentLink) {
  EXPECT_EQ(Run(), kTimeout);
  EXPECT_STREQ(record.name, "router");
  EXPECT_EQ(record.retry, 0u);
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Hex(SentPackets()[0].bytes),
            WireHex("00 00 00 00 00 01 6*00 06 'router' 05 'local' 00 00 01 00 01"));
  EXPECT_EQ(SentPackets()[0].socket, own.Get());
  EXPECT_EQ(ntohs(SentPackets()[0].destination.sin_port), 5353);
  EXPECT_THAT(pauses, ElementsAre());
}

TEST_F(CheckNameTest, EachConflictReplacesTheNumberAndIsFollowedByAPauseAndAProbe) {
  answers = {{Claim("router")}, {Claim("router-1")}};
  EXPECT_EQ(Run(), std::string(kRepeat) + kRepeat + kTimeout);
  EXPECT_STREQ(record.name, "router-2");
  EXPECT_EQ(record.retry, 1u);
  ASSERT_EQ(SentPackets().size(), 3u);
  EXPECT_EQ(Probed(1), "router-1");
  EXPECT_EQ(Probed(2), "router-2");
  EXPECT_THAT(pauses, ElementsAre(250000, 250000));
}

TEST_F(CheckNameTest, NumbersStartAgainAfter999) {
  answers = {{Claim("router")}};
  for (int i = 1; i <= 999; ++i) answers.push_back({Claim("router-" + std::to_string(i))});
  Run();
  ASSERT_EQ(SentPackets().size(), 1001u);
  EXPECT_EQ(Probed(999), "router-999");
  EXPECT_STREQ(record.name, "router-1");
}

TEST_F(CheckNameTest, TwelfthOtherPacketEndsTheProbe) {
  answers = {Others(13)};
  answers[0][0] = "00";
  EXPECT_EQ(Run(), kLimit);
  EXPECT_FALSE(own.HasNoPacket());  // the 13th was not waited for
  EXPECT_STREQ(record.name, "router");
  EXPECT_EQ(record.retry, 0u);
}

TEST_F(CheckNameTest, ConflictInTheTwelfthPacketCountsAndEachProbeCountsFromNothing) {
  answers = {Others(11), Others(11)};
  answers[0].push_back(Claim("router"));
  EXPECT_EQ(Run(), std::string(kRepeat) + kTimeout);
}

TEST_F(CheckNameTest, OwnPacketsAreCountedButNotCompared) {
  const UdpSocket self("127.0.0.1");
  for (int i = 0; i < 12; ++i) self.Send(Wire(Claim("router")), own.Name());
  EXPECT_EQ(Run(), kLimit);
  EXPECT_EQ(record.retry, 0u);
}

TEST_F(CheckNameTest, EmptyDatagramAndReceiveErrorEndLikeSilence) {
  answers = {{"", Claim("router")}};
  EXPECT_EQ(Run(), kTimeout);
  EXPECT_FALSE(own.HasNoPacket());
  record.socket = -1;
  EXPECT_EQ(Run(), kTimeout);
}

TEST_F(CheckNameTest, StopAfterTheProbeEndsBeforeListening) {
  onSendPacket = [this] {
    other.Send(Wire(Claim("router")), own.Name());
    bTerminate.Set(1);
  };
  EXPECT_EQ(Run(), "");
  EXPECT_EQ(record.retry, 0u);
}

TEST_F(CheckNameTest, StopWhileListeningEndsAfterTheNextPacket) {
  own.SetReceiveTimeout(5000);
  CapturedOutput output;
  std::thread prober([this] { MDNS_CheckName(&record); });
  ASSERT_TRUE(WaitForSentPackets(1));
  other.Send(Wire(Claim("other")), own.Name());
  while (!own.HasNoPacket()) std::this_thread::yield();
  bTerminate.Set(1);
  other.Send(Wire(Claim("other")), own.Name());
  prober.join();
  EXPECT_EQ(output.Stdout(), "");
}

TEST_F(CheckNameTest, StopAfterAConflictKeepsTheNewName) {
  answers = {{Claim("router")}};
  onUsleep = [](unsigned) { bTerminate.Set(1); };
  EXPECT_EQ(Run(), kRepeat);
  EXPECT_STREQ(record.name, "router-1");
  EXPECT_EQ(record.retry, 1u);
  EXPECT_EQ(SentPackets().size(), 1u);
}

}  // namespace
