// In place of records/sender: every packet that is handed over is kept. Included once in a program.
#pragma once

#include <netinet/in.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include "base/gate.h"
#include "records/sender.h"
#include "tests/support/bytes.h"

struct SentPacket {
  Bytes bytes;  ///< as many as the sender would copy
  int32_t length;
  int32_t socket;
  sockaddr_in destination;
};

/// Called on the sending thread for each packet, after its recording. Set while nobody sends.
std::function<void()> onSendPacket;
/// Who is sending: inside, until CloseSending.
Gate fakeSenders;

namespace fake_sender {

std::mutex mutex;
std::condition_variable added;
std::vector<SentPacket> packets;

}  // namespace fake_sender

/// The packets so far, in their order. Any thread.
inline std::vector<SentPacket> SentPackets() {
  const std::lock_guard lock(fake_sender::mutex);
  return fake_sender::packets;
}

/// Waits until `count` packets have been handed over. Returns false after ten seconds.
inline bool WaitForSentPackets(size_t count) {
  std::unique_lock lock(fake_sender::mutex);
  return fake_sender::added.wait_for(lock, std::chrono::seconds(10),
                                     [&] { return fake_sender::packets.size() >= count; });
}

/// Forgets the packets so far.
inline void ForgetSentPackets() {
  const std::lock_guard lock(fake_sender::mutex);
  fake_sender::packets.clear();
}

void SendPacket(const uint8_t* packet, int32_t length, int32_t socket, sockaddr_in destination) {
  const int32_t copied = std::clamp(length, 0, 1518);
  {
    const std::lock_guard lock(fake_sender::mutex);
    fake_sender::packets.push_back({Bytes(packet, packet + copied), length, socket, destination});
    fake_sender::added.notify_all();
  }
  if (onSendPacket) onSendPacket();
}

bool IsAnyoneSending() { return !fakeSenders.IsEmpty(); }

void CloseSending() { fakeSenders.Close(); }

GatePass UseAsSender() { return GatePass(fakeSenders); }
