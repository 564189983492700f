// The bytes of each kind of record are in packets_test.cpp and in mdns/.
#include "records/compose.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/bytes.h"

namespace {

class ComposeTest : public testing::Test {
 protected:
  ComposeTest() { BeginPacket(packet, {}); }
  Bytes bytes = Bytes(1518, 0xEE);
  Packet packet = {bytes.data(), 1518, 0, {}};
};

TEST_F(ComposeTest, BeginPacketWritesTheHeaderAndZerosTheRest) {
  bytes.assign(1518, 0xEE);
  BeginPacket(packet, {0x84, 1, 2, 3});
  EXPECT_EQ(packet.length, 12);
  EXPECT_EQ(Hex(bytes), WireHex("00 00 84 00 00 01 00 02 00 03 00 00 1506*00"));
}

TEST_F(ComposeTest, OwnerIsCutAt192CharactersAndDataAt1023) {
  AddText(packet, std::string(190, 'a') + "yzDROPPED", std::string(1021, 'a') + "yzDROPPED");
  // Of a label or a string that is cut the character after it is lost.
  EXPECT_EQ(Hex(bytes),
            WireHex("12*00 40 64*'a' 40 64*'a' 3E 60*'a' 'yz' 00 00 10 80 01 00 00 11 94"
                    " 04 00 80 128*'a' 80 128*'a' 80 128*'a' 80 128*'a' 80 128*'a'"
                    " 80 128*'a' 80 128*'a' 78 118*'a' 'yz' 278*00"));
}

TEST(Compose, PacketsOfARegistrationHold1518Bytes) { EXPECT_EQ(kPacketSize, 1518); }

}  // namespace
