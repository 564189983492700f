// Takes the place of the packet sender: keeps what is handed to it instead of sending it.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <string>

#include "fuzz/record_model.h"

/// A packet that was handed to SendPacket.
struct SentPacket {
  std::string bytes;  ///< as many of them as may be read
  int32_t length;     ///< as the composer gave it
  int32_t socket;
  sockaddr_in destination;
};

/// The packets not yet looked at, the oldest first.
extern std::deque<SentPacket> sentPackets;

/// Called with each packet in place of keeping it, when set.
extern std::function<void(const SentPacket&)> onSend;

/// Requires that `sent` is `model`, composed in a buffer of `capacity` bytes: length and bytes,
/// also where the buffer's end cut it, and, when it was not cut, the records as the walker reads
/// them; and that it goes to the multicast group on `socket`.
void RequirePacket(const SentPacket& sent, const ModelPacket& model, int32_t capacity,
                   int32_t socket);

/// Requires the above of the oldest packet not yet looked at, which is thereby looked at.
void RequireNextPacket(const ModelPacket& model, int32_t capacity, int32_t socket);

/// Fills in the process's one multicast destination.
void SetDestination();
