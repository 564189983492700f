// The bytes of each kind of record, one after the other, are in packets_test.cpp and in mdns/.
#include "records/compose.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/bytes.h"

namespace {

TEST(AddText, CutsTheOwnerAt192CharactersAndTheDataAt1023) {
  Bytes bytes(1518);
  Packet packet = {bytes.data(), 1518, 12, {}};
  AddText(packet, std::string(190, 'a') + "yzDROPPED", std::string(1021, 'a') + "yzDROPPED");
  // Of a label or a string that is cut the character after it is lost.
  EXPECT_EQ(Hex(bytes),
            WireHex("12*00 40 64*'a' 40 64*'a' 3E 60*'a' 'yz' 00 00 10 80 01 00 00 11 94"
                    " 04 00 80 128*'a' 80 128*'a' 80 128*'a' 80 128*'a' 80 128*'a'"
                    " 80 128*'a' 80 128*'a' 78 118*'a' 'yz' 278*00"));
}

TEST(Compose, PacketsOfARegistrationHold1518Bytes) { EXPECT_EQ(kPacketSize, 1518); }

}  // namespace
