#include "tests/support/fake_sender.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "records/sender.h"

std::function<void()> onSendPacket;
std::function<void()> onLookAtSenders;
Gate fakeSenders;

namespace {

std::mutex mutex;
std::condition_variable added;
std::vector<SentPacket> packets;

}  // namespace

std::vector<SentPacket> SentPackets() {
  const std::lock_guard lock(mutex);
  return packets;
}

bool WaitForSentPackets(size_t count) {
  std::unique_lock lock(mutex);
  return added.wait_for(lock, std::chrono::seconds(10), [&] { return packets.size() >= count; });
}

void ForgetSentPackets() {
  const std::lock_guard lock(mutex);
  packets.clear();
}

void SendPacket(const uint8_t* packet, int32_t length, int32_t socket, sockaddr_in destination) {
  const int32_t copied = std::clamp(length, 0, 1518);
  {
    const std::lock_guard lock(mutex);
    packets.push_back({Bytes(packet, packet + copied), length, socket, destination});
    added.notify_all();
  }
  if (onSendPacket) onSendPacket();
}

bool IsAnyoneSending() {
  const bool isAnyone = !fakeSenders.IsEmpty();
  if (onLookAtSenders) onLookAtSenders();
  return isAnyone;
}

void CloseSending() { fakeSenders.Close(); }

GatePass UseAsSender() { return GatePass(fakeSenders); }
