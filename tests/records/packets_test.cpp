#include "records/packets.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>

#include "mdns/state.h"
#include "tests/support/fake_sender.h"
#include "tests/support/fault.h"
#include "tests/support/network.h"
#include "tests/support/output.h"

namespace {

class PacketsTest : public testing::Test {
 protected:
  PacketsTest() {
    responderState.interfaceAddress[0].Set(inet_addr("192.168.1.1"));
    responderState.connected[0].Set(1);
    responderState.mdnsDestination = SocketAddress("224.0.0.251", 5353);
    multicastSocket.Set(17);
    ForgetSentPackets();
  }
};

TEST_F(PacketsTest, IppServiceIsProbedAndAnnounced) {
  EXPECT_EQ(
      PacketsComposeAdd("MyRouter", "Office", "_ipp._tcp", ".local", "txtvers=1\nrp=ipp", 16, 631),
      1u);
  const std::vector<SentPacket> sent = SentPackets();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(Hex(sent[0].bytes),
            WireHex("00 00 00 00 00 02 00 00 00 02 00 00"
                    " 08 'MyRouter' 05 'local' 00 00 FF 80 01"
                    " 06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00 00 FF 80 01"
                    " 08 'MyRouter' 05 'local' 00 00 01 00 01 00 00 00 78 00 04 C0 A8 01 01"
                    " 06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00 00 21 00 01 00 00 00 78 00 16"
                    " 00 00 00 00 02 77 08 'MyRouter' 05 'local' 00"));
  EXPECT_EQ(Hex(sent[1].bytes),
            WireHex("00 00 84 00 00 00 00 05 00 00 00 00"
                    " 08 'MyRouter' 05 'local' 00 00 01 80 01 00 00 00 78 00 04 C0 A8 01 01"
                    " 04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01 00 00 11 94 00 18"
                    " 06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00"
                    " 06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00 00 21 80 01 00 00 00 78 00 16"
                    " 00 00 00 00 02 77 08 'MyRouter' 05 'local' 00"
                    " 06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00 00 10 80 01 00 00 11 94 00 11"
                    " 09 'txtvers=1' 06 'rp=ipp'"
                    " 0A '_universal' 04 '_sub' 04 '_ipp' 04 '_tcp' 05 'local' 00"
                    " 00 0C 00 01 00 00 11 94 00 18"
                    " 06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00"));
}

TEST_F(PacketsTest, PacketsLeaveOnTheMulticastSocketForTheGroup) {
  PacketsComposeAdd("r", "o", "_ipp._tcp", ".local", nullptr, 0, 631);
  PacketsComposeRemove("o", "_ipp._tcp", ".local");
  const std::vector<SentPacket> sent = SentPackets();
  ASSERT_EQ(sent.size(), 3u);
  for (const SentPacket& packet : sent) {
    EXPECT_EQ(packet.socket, 17);
    EXPECT_EQ(packet.length, static_cast<int32_t>(packet.bytes.size()));
    EXPECT_EQ(packet.destination.sin_family, AF_INET);
    EXPECT_EQ(ntohs(packet.destination.sin_port), 5353);
    EXPECT_STREQ(inet_ntoa(packet.destination.sin_addr), "224.0.0.251");
  }
}

constexpr char kPrinterAnnouncement[] =
    "00 00 84 00 00 00 00 04 00 00 00 00"
    " 01 'r' 05 'local' 00 00 01 80 01 00 00 00 78 00 04 C0 A8 01 01"
    " 08 '_printer' 04 '_tcp' 05 'local' 00 00 0C 00 01 00 00 11 94 00 19"
    " 03 'Lab' 08 '_printer' 04 '_tcp' 05 'local' 00"
    " 03 'Lab' 08 '_printer' 04 '_tcp' 05 'local' 00 00 21 80 01 00 00 00 78 00 0F"
    " 00 00 00 00 02 03 01 'r' 05 'local' 00"
    " 03 'Lab' 08 '_printer' 04 '_tcp' 05 'local' 00 00 10 80 01 00 00 11 94";

std::string PrinterAnnouncement(const char* text) {
  return WireHex(std::string(kPrinterAnnouncement) + " " + text);
}

TEST_F(PacketsTest, OtherServiceHasNoSubtype) {
  PacketsComposeAdd("r", "Lab", "_printer._tcp", ".local", "a", 1, 515);
  const std::vector<SentPacket> sent = SentPackets();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(Hex(sent[0].bytes),
            WireHex("00 00 00 00 00 02 00 00 00 02 00 00"
                    " 01 'r' 05 'local' 00 00 FF 80 01"
                    " 03 'Lab' 08 '_printer' 04 '_tcp' 05 'local' 00 00 FF 80 01"
                    " 01 'r' 05 'local' 00 00 01 00 01 00 00 00 78 00 04 C0 A8 01 01"
                    " 03 'Lab' 08 '_printer' 04 '_tcp' 05 'local' 00 00 21 00 01 00 00 00 78 00 0F"
                    " 00 00 00 00 02 03 01 'r' 05 'local' 00"));
  EXPECT_EQ(Hex(sent[1].bytes), PrinterAnnouncement("00 02 01 'a'"));
}

struct TextRow {
  const char* behaviour;
  const char* txt;
  int32_t txtLength;
  const char* wire;
};

class TextLengthTest : public PacketsTest, public testing::WithParamInterface<TextRow> {};

INSTANTIATE_TEST_SUITE_P(Texts, TextLengthTest,
                         testing::ValuesIn(std::initializer_list<TextRow>{
                             {"NoTextAndNoLength", nullptr, 0, "00 00"},
                             {"TextAndNoLength", "a", 0, "00 00"},
                             {"NoTextWithALength", nullptr, 3, "00 00"},
                             {"LengthBelowTheTexts", "abc", 1, "00 04 03 'abc'"},
                             {"LengthAboveTheTexts", "abc", 9, "00 04 03 'abc'"},
                         }),
                         [](const auto& row) { return std::string(row.param.behaviour); });

TEST_P(TextLengthTest, DecidesOnlyWhetherTheTextIsUsed) {
  const TextRow& row = GetParam();
  PacketsComposeAdd("r", "Lab", "_printer._tcp", ".local", row.txt, row.txtLength, 515);
  ASSERT_EQ(SentPackets().size(), 2u);
  EXPECT_EQ(Hex(SentPackets()[1].bytes), PrinterAnnouncement(row.wire));
}

class AlmostIppTest : public PacketsTest, public testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(Types, AlmostIppTest,
                         testing::Values("_ipp._udp", "_ipp._tcpx", "_ipp._tc", "_IPP._tcp",
                                         "_ipps._tcp"));

TEST_P(AlmostIppTest, HasNoSubtype) {
  PacketsComposeAdd("r", "o", GetParam(), ".local", nullptr, 0, 631);
  PacketsComposeRemove("o", GetParam(), ".local");
  ASSERT_EQ(SentPackets().size(), 3u);
  EXPECT_EQ(SentPackets()[1].bytes[7], 4);
  EXPECT_EQ(SentPackets()[2].bytes[7], 1);
}

TEST_F(PacketsTest, GoodbyeOfIppWithdrawsBothPointers) {
  EXPECT_EQ(PacketsComposeRemove("Office", "_ipp._tcp", ".local"), 1u);
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Hex(SentPackets()[0].bytes),
            WireHex("00 00 84 00 00 00 00 02 00 00 00 00"
                    " 04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01 00 00 00 00 00 18"
                    " 06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00"
                    " 0A '_universal' 04 '_sub' 04 '_ipp' 04 '_tcp' 05 'local' 00"
                    " 00 0C 00 01 00 00 00 00 00 18"
                    " 06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00"));
}

TEST_F(PacketsTest, GoodbyeOfOthersWithdrawsOnePointer) {
  EXPECT_EQ(PacketsComposeRemove("Lab", "_pdl-datastream._tcp", ".local"), 1u);
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Hex(SentPackets()[0].bytes),
            WireHex("00 00 84 00 00 00 00 01 00 00 00 00"
                    " 0F '_pdl-datastream' 04 '_tcp' 05 'local' 00 00 0C 00 01 00 00 00 00 00 20"
                    " 03 'Lab' 0F '_pdl-datastream' 04 '_tcp' 05 'local' 00"));
}

TEST_F(PacketsTest, DomainFollowsTheArgumentButNotInTheSubtype) {
  PacketsComposeRemove("o", "_ipp._tcp", ".lan");
  EXPECT_EQ(Hex(SentPackets()[0].bytes),
            WireHex("00 00 84 00 00 00 00 02 00 00 00 00"
                    " 04 '_ipp' 04 '_tcp' 03 'lan' 00 00 0C 00 01 00 00 00 00 00 11"
                    " 01 'o' 04 '_ipp' 04 '_tcp' 03 'lan' 00"
                    " 0A '_universal' 04 '_sub' 04 '_ipp' 04 '_tcp' 05 'local' 00"
                    " 00 0C 00 01 00 00 00 00 00 11"
                    " 01 'o' 04 '_ipp' 04 '_tcp' 03 'lan' 00"));
}

TEST_F(PacketsTest, NothingIsSentWithoutTheBridge) {
  responderState.connected[0].Set(0);
  responderState.connected[1].Set(1);
  EXPECT_EQ(PacketsComposeAdd("r", "o", "_ipp._tcp", ".local", nullptr, 0, 631), 1u);
  EXPECT_EQ(PacketsComposeRemove("o", "_ipp._tcp", ".local"), 1u);
  EXPECT_EQ(SentPackets().size(), 0u);
}

TEST_F(PacketsTest, LongestTextsAreCutWithoutAMessage) {
  // Five long names and a text of 1023 characters: past the end of the packet.
  const std::string name(128, 'n');
  std::string txt;
  for (int i = 0; i < 8; ++i) txt += std::string(127, 't') + "\n";
  CapturedOutput output;
  EXPECT_EQ(PacketsComposeAdd(std::string(64, 'r').c_str(), name.c_str(), "_ipp._tcp", ".local",
                              txt.c_str(), 1024, 631),
            1u);
  EXPECT_EQ(output.Stdout() + output.Stderr(), "");
  ASSERT_EQ(SentPackets().size(), 2u);
  EXPECT_GT(SentPackets()[1].length, 1518);
}

class NoMemoryTest : public PacketsTest, public testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Names, NoMemoryTest, testing::Values(1, 2, 3));

TEST_P(NoMemoryTest, AnnouncementFails) {
  CapturedOutput output;
  callocFault.FailCall(GetParam());
  EXPECT_EQ(PacketsComposeAdd("r", "o", "_ipp._tcp", ".local", nullptr, 0, 631), 0u);
  EXPECT_TRUE(callocFault.HasStruck());
  EXPECT_EQ(output.Stderr(), "[Bonjour] malloc error: Cannot allocate memory\n");
  EXPECT_EQ(output.Stdout(), "");
  EXPECT_EQ(SentPackets().size(), 0u);
}

TEST_F(PacketsTest, AnnouncementMakesThreeNames) {
  callocFault.FailCall(4);
  EXPECT_EQ(PacketsComposeAdd("r", "o", "_ipp._tcp", ".local", nullptr, 0, 631), 1u);
  EXPECT_FALSE(callocFault.HasStruck());
  callocFault.FailCall(0);
}

class NoMemoryForGoodbyeTest : public PacketsTest, public testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Names, NoMemoryForGoodbyeTest, testing::Values(1, 2));

TEST_P(NoMemoryForGoodbyeTest, GoodbyeFails) {
  CapturedOutput output;
  callocFault.FailCall(GetParam());
  EXPECT_EQ(PacketsComposeRemove("o", "_ipp._tcp", ".local"), 0u);
  EXPECT_TRUE(callocFault.HasStruck());
  EXPECT_EQ(output.Stderr(), "[Bonjour] malloc error: Cannot allocate memory\n");
  EXPECT_EQ(SentPackets().size(), 0u);
}

}  // namespace
