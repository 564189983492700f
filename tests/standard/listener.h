// A passive cache of one address family, kept as RFC 6762, section 10, says: by TTL, cache-flush
// bit and goodbyes.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tests/standard/packet.h"

/// A record that was heard.
struct HeardRecord {
  PacketRecord record;
  size_t sender;      ///< who sent it last
  int64_t heardAt;    ///< when
  int64_t expiresAt;  ///< by its TTL
  int64_t goneAt;     ///< by a goodbye or by another record with the cache-flush bit; else kNever
  bool isExcused;     ///< its sender had no way to withdraw it
};

class Listener {
 public:
  /// Takes a response that everybody hears.
  void Hear(const Packet& packet, size_t sender, int64_t now);
  /// The record with these name, type and data, whatever became of it; null if it was never heard.
  const HeardRecord* Find(const PacketRecord& record) const;
  /// Excuses the records that `sender` sent last and for which `isExcused` holds.
  void Excuse(size_t sender, const std::function<bool(const HeardRecord&)>& isExcused);
  /// Calls `visit` for each record that is alive at `now`.
  void ForEachAlive(int64_t now, const std::function<void(const HeardRecord&)>& visit) const;

 private:
  void Flush(const PacketRecord& record, size_t sender, int64_t now);

  // By name and type; in an order that is the same on every machine.
  std::map<std::string, std::vector<HeardRecord>> sets;
};

/// True when the record was neither said goodbye to nor flushed until `now`, however old it is.
bool IsKept(const HeardRecord& heard, int64_t now);
