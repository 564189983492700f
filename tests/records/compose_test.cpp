#include "records/compose.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/bytes.h"

namespace {

class ComposeTest : public testing::Test {
 protected:
  // What was composed after the header.
  std::string Records() const {
    return Hex(std::span(bytes).subspan(12, static_cast<size_t>(packet.length) - 12));
  }

  Bytes bytes = Bytes(1518, 0xEE);
  Packet packet = {bytes.data(), 1518, 0, {}};
};

TEST_F(ComposeTest, BeginPacketWritesTheHeaderAndZerosTheRest) {
  BeginPacket(packet, {0x84, 1, 2, 3});
  EXPECT_EQ(packet.length, 12);
  EXPECT_EQ(Hex(bytes), WireHex("00 00 84 00 00 01 00 02 00 03 00 00 1506*00"));
}

TEST_F(ComposeTest, QuestionWithoutAndWithUnicastResponse) {
  BeginPacket(packet, {});
  AddQuestion(packet, "h.local", 1, false);
  AddQuestion(packet, "h.local", 255, true);
  EXPECT_EQ(Records(), WireHex("01 'h' 05 'local' 00 00 01 00 01"
                               " 01 'h' 05 'local' 00 00 FF 80 01"));
}

TEST_F(ComposeTest, AddressWithAndWithoutCacheFlush) {
  BeginPacket(packet, {});
  AddAddress(packet, "h", true, "192.168.1.1");
  AddAddress(packet, "h", false, "192.168.1.2");
  EXPECT_EQ(Records(), WireHex("01 'h' 00 00 01 80 01 00 00 00 78 00 04 C0 A8 01 01"
                               " 01 'h' 00 00 01 00 01 00 00 00 78 00 04 C0 A8 01 02"));
}

TEST_F(ComposeTest, PointerIsSharedAndTakesItsTimeToLive) {
  BeginPacket(packet, {});
  AddPointer(packet, "t", 4500, "i.t");
  AddPointer(packet, "t", 0, "i.t");
  EXPECT_EQ(Records(), WireHex("01 't' 00 00 0C 00 01 00 00 11 94 00 05 01 'i' 01 't' 00"
                               " 01 't' 00 00 0C 00 01 00 00 00 00 00 05 01 'i' 01 't' 00"));
}

TEST_F(ComposeTest, ServerLivesAsLongAsTheHost) {
  BeginPacket(packet, {});
  AddServer(packet, "i", true, 9100, "h");
  AddServer(packet, "i", false, 65535, "h");
  EXPECT_EQ(Records(),
            WireHex("01 'i' 00 00 21 80 01 00 00 00 78 00 09 00 00 00 00 23 8C 01 'h' 00"
                    " 01 'i' 00 00 21 00 01 00 00 00 78 00 09 00 00 00 00 FF FF 01 'h' 00"));
}

TEST_F(ComposeTest, TextFlushesCaches) {
  BeginPacket(packet, {});
  AddText(packet, "i", "txtvers=1\nqtotal=1");
  AddText(packet, "i", "");
  EXPECT_EQ(Records(),
            WireHex("01 'i' 00 00 10 80 01 00 00 11 94 00 13 09 'txtvers=1' 08 'qtotal=1'"
                    " 01 'i' 00 00 10 80 01 00 00 11 94 00 00"));
}

TEST_F(ComposeTest, OwnerIsCutAt192Characters) {
  BeginPacket(packet, {});
  AddQuestion(packet, std::string(190, 'a') + "yzDROPPED", 1, false);
  EXPECT_EQ(Records(), WireHex("40 64*'a' 40 64*'a' 3E 60*'a' 'yz' 00 00 01 00 01"));
}

TEST_F(ComposeTest, DataIsCutAt1023Characters) {
  std::string text;
  for (int i = 0; i < 7; ++i) text += std::string(127, 'a') + "\n";
  text += std::string(126, 'b') + "zDROPPED";
  BeginPacket(packet, {});
  AddText(packet, "i", text);
  EXPECT_EQ(Records(), WireHex("01 'i' 00 00 10 80 01 00 00 11 94 04 00"
                               " 7F 127*'a' 7F 127*'a' 7F 127*'a' 7F 127*'a' 7F 127*'a' 7F 127*'a'"
                               " 7F 127*'a' 7F 126*'b' 'z'"));
}

TEST_F(ComposeTest, NothingOfOneRecordIsLeftInTheNext) {
  BeginPacket(packet, {});
  AddServer(packet, "longer.owner", true, 9100, "longer.target");
  packet.length = 12;
  AddPointer(packet, "o", 0, "t");
  EXPECT_EQ(packet.record.cacheFlush, 0);
  EXPECT_EQ(packet.record.port, 0);
  EXPECT_STREQ(packet.record.name + 2, "");
  EXPECT_STREQ(packet.record.rdata + 2, "");
  AddQuestion(packet, "o", 1, false);
  EXPECT_EQ(packet.record.ttl, 0u);
  EXPECT_STREQ(packet.record.rdata, "");
}

const ServiceRecords kOffice = {
    "T5140.local", "192.168.1.1", "_ipp._tcp.local", "Office._ipp._tcp.local", "txtvers=1\nrp=ipp",
    631,           true};

constexpr char kOfficeResponse[] =
    "00 00 84 00 00 00 00 05 00 00 00 00"
    " 05 'T5140' 05 'local' 00 00 01 80 01 00 00 00 78 00 04 C0 A8 01 01"
    " 04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01 00 00 11 94 00 18"
    " 06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00"
    " 06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00 00 21 80 01 00 00 00 78 00 13"
    " 00 00 00 00 02 77 05 'T5140' 05 'local' 00"
    " 06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00 00 10 80 01 00 00 11 94 00 11"
    " 09 'txtvers=1' 06 'rp=ipp'"
    " 0A '_universal' 04 '_sub' 04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01 00 00 11 94 00 18"
    " 06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00";

TEST_F(ComposeTest, ResponseWithSubtypeHasFiveAnswers) {
  ComposeServiceResponse(packet, kOffice);
  EXPECT_EQ(Hex(std::span(bytes).first(static_cast<size_t>(packet.length))),
            WireHex(kOfficeResponse));
}

TEST_F(ComposeTest, ResponseWithoutSubtypeHasFour) {
  ComposeServiceResponse(packet, {"T5140.local", "192.168.1.1", "_printer._tcp.local",
                                  "Lab._printer._tcp.local", "", 515, false});
  EXPECT_EQ(
      Hex(std::span(bytes).first(static_cast<size_t>(packet.length))),
      WireHex("00 00 84 00 00 00 00 04 00 00 00 00"
              " 05 'T5140' 05 'local' 00 00 01 80 01 00 00 00 78 00 04 C0 A8 01 01"
              " 08 '_printer' 04 '_tcp' 05 'local' 00 00 0C 00 01 00 00 11 94 00 19"
              " 03 'Lab' 08 '_printer' 04 '_tcp' 05 'local' 00"
              " 03 'Lab' 08 '_printer' 04 '_tcp' 05 'local' 00 00 21 80 01 00 00 00 78 00 13"
              " 00 00 00 00 02 03 05 'T5140' 05 'local' 00"
              " 03 'Lab' 08 '_printer' 04 '_tcp' 05 'local' 00 00 10 80 01 00 00 11 94 00 00"));
}

TEST_F(ComposeTest, RebuiltPacketHoldsNothingOfALongerOne) {
  ComposeServiceResponse(packet, kOffice);
  BeginPacket(packet, {});
  EXPECT_EQ(Hex(bytes), WireHex("1518*00"));
}

TEST(Compose, ResponseStaysInsideAPacketOfAnyCapacity) {
  const auto whole = static_cast<int32_t>(Wire(kOfficeResponse).size());
  for (int32_t capacity = 12; capacity <= whole; ++capacity) {
    ExactBytes block(static_cast<size_t>(capacity));
    Packet packet = {block.Data(), capacity, 0, {}};
    ComposeServiceResponse(packet, kOffice);
    EXPECT_GE(packet.length, capacity);
  }
}

TEST(Compose, PacketsOfARegistrationHold1518Bytes) { EXPECT_EQ(kPacketSize, 1518); }

}  // namespace
