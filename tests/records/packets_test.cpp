#include "records/packets.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "mdns/state.h"
#include "tests/support/fake_sender.h"
#include "tests/support/fault.h"
#include "tests/support/network.h"
#include "tests/support/output.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

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

TEST_F(PacketsTest, IppServiceIsProbedAndAnnouncedToTheGroup) {
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
  for (const SentPacket& packet : sent) {
    EXPECT_EQ(packet.socket, 17);
    EXPECT_EQ(packet.length, static_cast<int32_t>(packet.bytes.size()));
    EXPECT_EQ(ntohs(packet.destination.sin_port), 5353);
    EXPECT_STREQ(inet_ntoa(packet.destination.sin_addr), "224.0.0.251");
  }
}

// The length decides only whether the text is used.
TEST_F(PacketsTest, OtherServiceIsAnnouncedWithItsTextAndNoSubtype) {
  struct Row {
    const char* txt;
    int32_t txtLength;
    const char* wire;
  };
  for (const Row& row : {Row{"a", 0, "00 00"}, Row{nullptr, 3, "00 00"},
                         Row{"abc", 1, "00 04 03 'abc'"}, Row{"abc", 9, "00 04 03 'abc'"}}) {
    ForgetSentPackets();
    PacketsComposeAdd("r", "Lab", "_printer._tcp", ".local", row.txt, row.txtLength, 515);
    ASSERT_EQ(SentPackets().size(), 2u);
    const std::string announcement = Hex(SentPackets()[1].bytes);
    EXPECT_THAT(announcement, StartsWith(WireHex("00 00 84 00 00 00 00 04 00 00 00 00 01 'r'")));
    EXPECT_THAT(announcement, HasSubstr(WireHex("00 00 00 00 02 03 01 'r' 05 'local' 00")));
    EXPECT_THAT(announcement,
                EndsWith(WireHex(std::string("00 10 80 01 00 00 11 94 ") + row.wire)));
  }
}

// The domain follows the argument, but not in the subtype.
TEST_F(PacketsTest, GoodbyeOfIppWithdrawsBothPointers) {
  EXPECT_EQ(PacketsComposeRemove("o", "_ipp._tcp", ".lan"), 1u);
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Hex(SentPackets()[0].bytes),
            WireHex("00 00 84 00 00 00 00 02 00 00 00 00"
                    " 04 '_ipp' 04 '_tcp' 03 'lan' 00 00 0C 00 01 00 00 00 00 00 11"
                    " 01 'o' 04 '_ipp' 04 '_tcp' 03 'lan' 00"
                    " 0A '_universal' 04 '_sub' 04 '_ipp' 04 '_tcp' 05 'local' 00"
                    " 00 0C 00 01 00 00 00 00 00 11"
                    " 01 'o' 04 '_ipp' 04 '_tcp' 03 'lan' 00"));
}

TEST_F(PacketsTest, GoodbyeOfOthersWithdrawsOnePointer) {
  EXPECT_EQ(PacketsComposeRemove("Lab", "_printer._tcp", ".local"), 1u);
  ASSERT_EQ(SentPackets().size(), 1u);
  EXPECT_EQ(Hex(SentPackets()[0].bytes),
            WireHex("00 00 84 00 00 00 00 01 00 00 00 00"
                    " 08 '_printer' 04 '_tcp' 05 'local' 00 00 0C 00 01 00 00 00 00 00 19"
                    " 03 'Lab' 08 '_printer' 04 '_tcp' 05 'local' 00"));
}

TEST_F(PacketsTest, NothingIsSentWithoutTheBridge) {
  responderState.connected[0].Set(0);
  responderState.connected[1].Set(1);
  EXPECT_EQ(PacketsComposeAdd("r", "o", "_ipp._tcp", ".local", nullptr, 0, 631), 1u);
  EXPECT_EQ(PacketsComposeRemove("o", "_ipp._tcp", ".local"), 1u);
  EXPECT_EQ(SentPackets().size(), 0u);
}

// Five long names and a text of 1023 characters: past the end of the packet.
TEST_F(PacketsTest, LongestTextsAreCutWithoutAMessage) {
  const std::string name(128, 'n');
  const std::string txt(1024, 't');
  CapturedOutput output;
  EXPECT_EQ(PacketsComposeAdd(std::string(64, 'r').c_str(), name.c_str(), "_ipp._tcp", ".local",
                              txt.c_str(), 1024, 631),
            1u);
  EXPECT_EQ(output.Stdout() + output.Stderr(), "");
  ASSERT_EQ(SentPackets().size(), 2u);
  EXPECT_EQ(Hex(std::span(SentPackets()[0].bytes).subspan(12, 72)),
            WireHex("40 64*'r' 05 'local' 00"));
  EXPECT_GT(SentPackets()[1].length, 1518);
}

// The host's, the instance's and the type's name; a goodbye has the last two.
TEST_F(PacketsTest, WithoutMemoryForANameNothingIsSent) {
  for (int call = 1; call <= 5; ++call) {
    CapturedOutput output;
    callocFault.FailCall(call <= 3 ? call : call - 3);
    const uint32_t result =
        call <= 3 ? PacketsComposeAdd("r", "o", "_ipp._tcp", ".local", nullptr, 0, 631)
                  : PacketsComposeRemove("o", "_ipp._tcp", ".local");
    EXPECT_EQ(result, 0u);
    EXPECT_TRUE(callocFault.HasStruck());
    EXPECT_EQ(output.Stderr(), "[Bonjour] malloc error: Cannot allocate memory\n");
    EXPECT_EQ(output.Stdout(), "");
  }
  EXPECT_EQ(SentPackets().size(), 0u);
}

}  // namespace
