// Takes the place of the packet sender.
#include "fuzz/fake_sender.h"

#include <arpa/inet.h>

#include <string_view>

#include "fuzz/check.h"
#include "fuzz/packet_check.h"
#include "mdns/state.h"
#include "records/sender.h"

std::vector<SentPacket> sentPackets;
std::function<void(const SentPacket&)> onSend;

namespace {

// What a sender reads of a packet. A packet that reaches it may have been cut.
constexpr int32_t kSentMax = 1518;
constexpr int32_t kSocket = 7;

}  // namespace

void SendPacket(const uint8_t* packet, int32_t length, int32_t socket, sockaddr_in destination) {
  REQUIRE(length >= 12, "a packet has at least a header");
  REQUIRE(socket == kSocket, "a packet leaves on the multicast socket");
  REQUIRE(destination.sin_family == AF_INET && ntohs(destination.sin_port) == 5353 &&
              ntohl(destination.sin_addr.s_addr) == 0xE00000FB,
          "a packet goes to the multicast group");
  SentPacket sent = {length, std::nullopt};
  if (length < kSentMax) {
    sent.message =
        RequireSoundPacket({reinterpret_cast<const char*>(packet), static_cast<size_t>(length)});
  }
  if (onSend) {
    onSend(sent);
  } else {
    sentPackets.push_back(sent);
  }
}

void SetDestination() {
  multicastSocket.Set(kSocket);
  responderState.mdnsDestination = {};
  responderState.mdnsDestination.sin_family = AF_INET;
  responderState.mdnsDestination.sin_port = htons(5353);
  responderState.mdnsDestination.sin_addr.s_addr = htonl(0xE00000FB);
}
