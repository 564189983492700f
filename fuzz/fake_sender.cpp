// Takes the place of the packet sender.
#include "fuzz/fake_sender.h"

#include <arpa/inet.h>

#include <algorithm>

#include "fuzz/check.h"
#include "mdns/state.h"
#include "records/sender.h"

std::deque<SentPacket> sentPackets;
std::function<void(const SentPacket&)> onSend;

namespace {

// What a sender reads of a packet.
constexpr int32_t kSentMax = 1518;

}  // namespace

void SendPacket(const uint8_t* packet, int32_t length, int32_t socket, sockaddr_in destination) {
  REQUIRE(length >= 12, "a packet has at least a header");
  const SentPacket sent = {std::string(reinterpret_cast<const char*>(packet),
                                       static_cast<size_t>(std::min(length, kSentMax))),
                           length, socket, destination};
  if (onSend) {
    onSend(sent);
  } else {
    sentPackets.push_back(sent);
  }
}

void RequirePacket(const SentPacket& sent, const ModelPacket& model, int32_t capacity,
                   int32_t socket) {
  ModelBuffer buffer(capacity);
  REQUIRE(sent.length == buffer.Packet(model), "a packet has the length that its records give");
  REQUIRE(sent.bytes == buffer.Bytes().substr(0, sent.bytes.size()),
          "a packet has the bytes that its records give");
  if (buffer.IsWhole() && sent.length <= kSentMax) RequireParsesBack(sent.bytes, model);
  REQUIRE(sent.socket == socket, "a packet leaves on the multicast socket");
  REQUIRE(sent.destination.sin_family == AF_INET && ntohs(sent.destination.sin_port) == 5353 &&
              ntohl(sent.destination.sin_addr.s_addr) == 0xE00000FB,
          "a packet goes to the multicast group");
}

void RequireNextPacket(const ModelPacket& model, int32_t capacity, int32_t socket) {
  REQUIRE(!sentPackets.empty(), "a packet is sent where one is due");
  RequirePacket(sentPackets.front(), model, capacity, socket);
  sentPackets.pop_front();
}

void SetDestination() {
  responderState.mdnsDestination = {};
  responderState.mdnsDestination.sin_family = AF_INET;
  responderState.mdnsDestination.sin_port = htons(5353);
  responderState.mdnsDestination.sin_addr.s_addr = htonl(0xE00000FB);
}
