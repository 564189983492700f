// Probing for the host name: the probe, what counts as a conflict, the next name, one whole pass.
#include "mdns/probe.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/support/bytes.h"
#include "tests/support/case_name.h"
#include "tests/support/fake_sender.h"
#include "tests/support/fault.h"
#include "tests/support/network.h"
#include "tests/support/output.h"

namespace {

using testing::ElementsAre;

constexpr char kHeader[] = "12*00 ";

// The probe packet

TEST(ComposeHostProbe, IsOnePlainAddressQuestion) {
  Bytes bytes(1518, 0xEE);
  Packet packet = {bytes.data(), 1518, 0, {}};
  ComposeHostProbe(packet, "T5140_00-11-22-AA-BB-CC");
  EXPECT_EQ(packet.length, 47);
  EXPECT_EQ(Hex(bytes), WireHex("00 00 00 00 00 01 00 00 00 00 00 00"
                                " 17 'T5140_00-11-22-AA-BB-CC' 05 'local' 00 00 01 00 01"
                                " 1471*00"));
}

TEST(ComposeHostProbe, TakesTheLongestNameWhole) {
  Bytes bytes(1518);
  Packet packet = {bytes.data(), 1518, 0, {}};
  ComposeHostProbe(packet, std::string(64, 'x'));
  EXPECT_EQ(Hex(std::span(bytes).first(static_cast<size_t>(packet.length))),
            WireHex("00 00 00 00 00 01 6*00 40 64*'x' 05 'local' 00 00 01 00 01"));
}

// What counts as a conflict

struct ConflictRow {
  const char* name;
  std::string deviceName;
  std::string wire;
  bool conflict;
};

class ConflictTest : public testing::TestWithParam<ConflictRow> {};

const ConflictRow kConflictRows[] = {
    {"SameLabel", "router", "12*00 06 'router' 05 'local' 00", true},
    {"HeaderIsIgnored", "router", "12*FF 06 'router' 05 'local' 00", true},
    {"RestOfTheNameDoesNotMatter", "router", "12*00 06 'router'", true},
    {"OneLetterAppended", "router", "12*00 07 'routerx' 05 'local' 00", false},
    {"OneLetterLess", "router", "12*00 05 'route' 05 'local' 00", false},
    {"OtherCase", "router", "12*00 06 'Router' 05 'local' 00", false},
    {"LastLetterDiffers", "router", "12*00 06 'routes' 05 'local' 00", false},
    {"LabelOfNothing", "router", "12*00 00 'router'", true},
    {"ShorterLengthByteAndTheWholeName", "router", "12*00 03 'router'", true},
    {"LabelFilledUpWithZeros", "router", "12*00 08 'router' 00 00", true},
    {"LongestName", std::string(64, 'x'), "12*00 40 64*'x'", true},
    {"LabelOf65WithAZero", std::string(64, 'x'), "12*00 41 64*'x' 00", true},
    {"LabelOf66", std::string(64, 'x'), "12*00 42 64*'x' 00 00", false},
    {"LabelOf255", "router", "12*00 FF 'router' 249*00", false},
    {"LabelCutShort", "router", "12*00 06 'route'", false},
    {"NoLabel", "router", "12*00", false},
    {"HeaderCutShort", "router", "11*00", false},
    {"EmptyNameAndNoLabel", "", "12*00 00", true},
};

INSTANTIATE_TEST_SUITE_P(Messages, ConflictTest, testing::ValuesIn(kConflictRows), CaseName());

TEST_P(ConflictTest, ComparesTheFirstLabelWithTheName) {
  const ConflictRow& row = GetParam();
  char name[kDeviceNameSize] = {};
  row.deviceName.copy(name, 64);
  ExactBytes message(Wire(row.wire));
  EXPECT_EQ(IsNameConflict(MessageReader(message.Data(), message.Size()), name), row.conflict);
}

TEST_P(ConflictTest, MessageCutShortIsNoConflict) {
  const ConflictRow& row = GetParam();
  char name[kDeviceNameSize] = {};
  row.deviceName.copy(name, 64);
  const Bytes whole = Wire(row.wire);
  for (size_t size = 0; size < 13 + row.deviceName.size() && size < whole.size(); ++size) {
    ExactBytes message(std::span<const uint8_t>(whole).first(size));
    EXPECT_FALSE(IsNameConflict(MessageReader(message.Data(), size), name)) << size;
  }
}

// The name after a conflict

struct NumberRow {
  size_t length;
  int32_t number;
  const char* suffix;  // null: the name is left
};

class NumberedNameTest : public testing::TestWithParam<NumberRow> {};

INSTANTIATE_TEST_SUITE_P(Lengths, NumberedNameTest,
                         testing::Values(NumberRow{5, 1, "-1"}, NumberRow{5, 999, "-999"},
                                         NumberRow{62, 9, "-9"}, NumberRow{63, 9, nullptr},
                                         NumberRow{62, 10, nullptr}, NumberRow{61, 10, "-10"},
                                         NumberRow{60, 999, "-999"}, NumberRow{61, 999, nullptr},
                                         NumberRow{64, 1, nullptr}, NumberRow{0, 1, "-1"}));

TEST_P(NumberedNameTest, IsTheDeviceNameAndTheNumberWhereBothFit) {
  const NumberRow& row = GetParam();
  char name[kDeviceNameSize] = {};
  memset(name, 'o', 64);
  const std::string deviceName(row.length, 'd');
  SetNumberedName(name, deviceName, row.number);
  if (row.suffix == nullptr) {
    EXPECT_EQ(std::string(name), std::string(64, 'o'));
  } else {
    std::string expected = deviceName + row.suffix;
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
    SetName("router");
    ForgetSentPackets();
    pauses.clear();
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

  void SetName(const std::string& name) {
    SetDeviceName(name);
    memset(record.name, 0, sizeof(record.name));
    name.copy(record.name, 64);
  }
  std::string Run() {
    return StdoutOf([this] { EXPECT_EQ(MDNS_CheckName(&record), nullptr); });
  }
  static std::string Claim(const std::string& name) {
    char length[8];
    snprintf(length, sizeof(length), "%02X", static_cast<unsigned>(name.size()));
    return std::string(kHeader) + length + " '" + name + "' 05 'local' 00 00 01 00 01";
  }
  // The first label that the nth probe asks for.
  static std::string Probed(size_t n) {
    const Bytes bytes = SentPackets().at(n).bytes;
    return {bytes.begin() + 13, bytes.begin() + 13 + bytes.at(12)};
  }

  const OwnNetwork network;
  const UdpSocket own{"127.0.0.1"};
  const UdpSocket self{"127.0.0.1"};
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

TEST_F(CheckNameTest, ConflictTakesTheNextNumberAndProbesAgain) {
  answers = {{Claim("router")}};
  EXPECT_EQ(Run(), std::string(kRepeat) + kTimeout);
  EXPECT_STREQ(record.name, "router-1");
  EXPECT_EQ(record.retry, 1u);
  ASSERT_EQ(SentPackets().size(), 2u);
  EXPECT_EQ(Probed(1), "router-1");
  EXPECT_THAT(pauses, ElementsAre(250000));
}

TEST_F(CheckNameTest, NumbersReplaceOneAnother) {
  answers = {{Claim("router")}, {Claim("router-1")}, {Claim("router-2")}};
  EXPECT_EQ(Run(), std::string(kRepeat) + kRepeat + kRepeat + kTimeout);
  EXPECT_STREQ(record.name, "router-3");
  EXPECT_EQ(Probed(2), "router-2");
}

TEST_F(CheckNameTest, BaseIsTheDeviceNameAndNotTheProbedOne) {
  SetName("router-7");
  SetDeviceName("router");
  answers = {{Claim("router-7")}};
  Run();
  EXPECT_STREQ(record.name, "router-1");
}

TEST_F(CheckNameTest, NumbersStartAgainAfter999) {
  for (int i = 0; i < 1000; ++i) {
    answers.push_back({Claim(i == 0     ? "router"
                             : i == 999 ? "router-999"
                                        : "router-" + std::to_string(i))});
  }
  Run();
  ASSERT_EQ(SentPackets().size(), 1001u);
  EXPECT_EQ(Probed(999), "router-999");
  EXPECT_EQ(Probed(1000), "router-1");
  EXPECT_STREQ(record.name, "router-1");
}

TEST_F(CheckNameTest, NameTooLongForANumberIsKeptAndProbedAgain) {
  const std::string longest(63, 'x');
  SetName(longest);
  answers = {{Claim(longest)}, {Claim(longest)}};
  EXPECT_EQ(Run(), std::string(kRepeat) + kRepeat + kTimeout);
  EXPECT_EQ(std::string(record.name), longest);
  EXPECT_EQ(record.retry, 1u);
}

TEST_F(CheckNameTest, ElevenOtherPacketsAndSilenceEndWithTheTimeout) {
  answers = {std::vector<std::string>(11, Claim("other"))};
  EXPECT_EQ(Run(), kTimeout);
  EXPECT_EQ(record.retry, 0u);
}

TEST_F(CheckNameTest, TwelfthOtherPacketEndsWithTheLimit) {
  answers = {std::vector<std::string>(13, Claim("other"))};
  EXPECT_EQ(Run(), kLimit);
  EXPECT_FALSE(own.HasNoPacket());  // the 13th was not waited for
  EXPECT_STREQ(record.name, "router");
  EXPECT_EQ(record.retry, 0u);
}

TEST_F(CheckNameTest, ConflictInTheTwelfthPacketCounts) {
  answers = {std::vector<std::string>(11, Claim("other"))};
  answers[0].push_back(Claim("router"));
  EXPECT_EQ(Run(), std::string(kRepeat) + kTimeout);
}

TEST_F(CheckNameTest, EachProbeCountsAnew) {
  answers = {std::vector<std::string>(11, Claim("other")),
             std::vector<std::string>(11, Claim("other"))};
  answers[0].push_back(Claim("router"));
  EXPECT_EQ(Run(), std::string(kRepeat) + kTimeout);
}

TEST_F(CheckNameTest, OwnPacketsAreCountedButNotCompared) {
  for (int i = 0; i < 12; ++i) self.Send(Wire(Claim("router")), own.Name());
  EXPECT_EQ(Run(), kLimit);
  EXPECT_EQ(record.retry, 0u);
}

TEST_F(CheckNameTest, EmptyDatagramEndsLikeSilence) {
  answers = {{"", Claim("router")}};
  EXPECT_EQ(Run(), kTimeout);
  EXPECT_FALSE(own.HasNoPacket());
}

TEST_F(CheckNameTest, ReceiveErrorEndsLikeSilence) {
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
