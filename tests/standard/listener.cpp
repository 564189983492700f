#include "tests/standard/listener.h"

#include <algorithm>

#include "standard/clock.h"

namespace {

constexpr int64_t kSecond = 1000;
constexpr uint16_t kFlushBit = 0x8000;

std::string SetKeyOf(const PacketRecord& record) {
  std::string key = record.name;
  Append16(key, record.type);
  return key;
}

}  // namespace

// Records of the set that came more than a second ago live for one second more. Younger ones stay:
// whoever sent them has done what can be done.
void Listener::Flush(const PacketRecord& record, size_t sender, int64_t now) {
  for (HeardRecord& heard : sets[SetKeyOf(record)]) {
    if (heard.record.data == record.data) continue;
    if (heard.heardAt + kSecond < now) {
      heard.goneAt = std::min(heard.goneAt, now + kSecond);
    } else if (heard.sender == sender) {
      heard.isExcused = true;
    }
  }
}

void Listener::Hear(const Packet& packet, size_t sender, int64_t now) {
  for (const PacketRecord& record : packet.records) {
    std::vector<HeardRecord>& set = sets[SetKeyOf(record)];
    auto heard = std::find_if(set.begin(), set.end(),
                              [&](const auto& one) { return one.record.data == record.data; });
    if (record.ttl == 0) {
      if (heard != set.end()) heard->goneAt = std::min(heard->goneAt, now + kSecond);
      continue;
    }
    if (heard == set.end()) heard = set.insert(heard, HeardRecord{});
    *heard = {record, sender, now, now + record.ttl * kSecond, kNever, false};
  }
  // Once all of the packet is in: a set may be in it whole.
  for (const PacketRecord& record : packet.records) {
    if ((record.classBits & kFlushBit) != 0) Flush(record, sender, now);
  }
}

const HeardRecord* Listener::Find(const PacketRecord& record) const {
  const auto set = sets.find(SetKeyOf(record));
  if (set == sets.end()) return nullptr;
  for (const HeardRecord& heard : set->second) {
    if (heard.record.data == record.data) return &heard;
  }
  return nullptr;
}

void Listener::Excuse(size_t sender, const std::function<bool(const HeardRecord&)>& isExcused) {
  for (auto& [key, set] : sets) {
    for (HeardRecord& heard : set) {
      if (heard.sender == sender && isExcused(heard)) heard.isExcused = true;
    }
  }
}

void Listener::ForEachAlive(int64_t now,
                            const std::function<void(const HeardRecord&)>& visit) const {
  for (const auto& [key, set] : sets) {
    for (const HeardRecord& heard : set) {
      if (IsKept(heard, now) && heard.expiresAt > now) visit(heard);
    }
  }
}

bool IsKept(const HeardRecord& heard, int64_t now) { return heard.goneAt > now; }
