// Takes the place of the packet sender: every packet that is handed over is kept.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <functional>
#include <vector>

#include "base/gate.h"
#include "tests/support/bytes.h"

struct SentPacket {
  Bytes bytes;  ///< as many as the sender would copy
  int32_t length;
  int32_t socket;
  sockaddr_in destination;
};

/// The packets so far, in their order. Any thread.
std::vector<SentPacket> SentPackets();

/// Waits until `count` packets have been handed over. Returns false after ten seconds.
bool WaitForSentPackets(size_t count);

/// Forgets the packets so far.
void ForgetSentPackets();

/// Called on the sending thread for each packet, after its recording. Set while nobody sends.
extern std::function<void()> onSendPacket;

/// Who is sending: inside, until CloseSending.
extern Gate fakeSenders;

/// Called for each look at who is sending, after the look. Set before any thread starts.
extern std::function<void()> onLookAtSenders;
