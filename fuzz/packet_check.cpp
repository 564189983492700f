// What is true of every packet.
#include "fuzz/packet_check.h"

#include "fuzz/check.h"

namespace {

void RequireOneName(std::string_view data, size_t offset) {
  Labels name;
  REQUIRE(WalkName(data, offset, name) && offset == data.size(), "a target is one whole name");
}

void RequireSoundSection(const std::vector<WireRecord>& records) {
  for (const WireRecord& record : records) RequireSoundData(record.type, record.data);
}

}  // namespace

WireMessage RequireSoundPacket(std::string_view packet) {
  WireMessage message;
  REQUIRE(WalkMessage(packet, message), "a packet parses to its last byte");
  REQUIRE(message.id == 0, "a packet has the ID 0");
  REQUIRE(message.flags == (message.answers.empty() ? 0 : 0x8400),
          "a packet is a query, or an authoritative response with answers");
  REQUIRE(message.additionals.empty(), "a packet has no additional records");
  RequireSoundSection(message.answers);
  RequireSoundSection(message.authorities);
  return message;
}

void RequireSoundData(int32_t type, std::string_view data) {
  Labels strings;
  switch (type) {
    case 1:
      REQUIRE(data.size() == 4, "an A record has four bytes");
      break;
    case 12:
      RequireOneName(data, 0);
      break;
    case 16:
      REQUIRE(WalkStrings(data, strings), "the strings of a TXT record are whole");
      for (const std::string& string : strings) {
        REQUIRE(!string.empty() && string.size() <= 128, "a TXT string has 1 to 128 characters");
      }
      break;
    case 33:
      REQUIRE(data.starts_with(std::string_view("\0\0\0\0", 4)),
              "a SRV record has priority 0 and weight 0");
      RequireOneName(data, 6);
      break;
    case 47:
      REQUIRE(data.size() >= 4 && static_cast<uint8_t>(data[0]) >= 0xC0 && data[2] == 0 &&
                  data.size() == size_t{4} + static_cast<uint8_t>(data[3]),
              "an NSEC record has a pointer and as many bitmap bytes as it says");
      break;
    default:
      REQUIRE(data.empty(), "a record of another type has no data");
  }
}
