// Takes the place of the packet sender: looks at what is handed to it instead of sending it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "fuzz/walker.h"

/// A packet that was handed to SendPacket.
struct SentPacket {
  int32_t length;                      ///< as the composer gave it
  std::optional<WireMessage> message;  ///< none when the packet is longer than what is sent of it
};

/// The packets so far; whoever looks at them clears them. Each is sound (fuzz/packet_check.h) and
/// was sent to the multicast group on `multicastSocket`.
extern std::vector<SentPacket> sentPackets;

/// Called with each packet in place of keeping it, when set.
extern std::function<void(const SentPacket&)> onSend;

/// Fills in the process's one multicast destination, and a descriptor as the multicast socket.
void SetDestination();
