// What one responder may send, and when: each packet's form, that names are probed for before they
// are used, and how often a record may be multicast. Knows what the responder sent and heard, and
// nothing of how it works.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "standard/datagram.h"
#include "tests/standard/packet.h"

/// True for records that many hosts may have, with data of their own: pointers, but for those of
/// reverse names.
bool IsSharedRecord(const PacketRecord& record);

/// A record's name, type and data, as one text.
std::string RecordKeyOf(const PacketRecord& record);

class SenderCheck {
 public:
  /// `lateness`: milliseconds that the responder's turns may come late.
  explicit SenderCheck(int64_t lateMax) : lateness(lateMax) {}

  /// The link is so from now on.
  void SetLink(const LinkState& state);
  /// The responder is handed this packet, or one that ReadPacket has no use for.
  void Hear(const Packet& packet, const Endpoint& source, int64_t now);
  void HearUnreadable(Family family, int64_t now);
  /// Another host contested the names with this first label: they have to be probed for again.
  void LoseNames(Family family, std::string_view label);
  /// The responder sends this, which is read into `packet`. Returns what is wrong with it; empty
  /// when nothing is.
  std::string Send(const OutgoingDatagram& out, int64_t now, Packet& packet);

 private:
  // Probes that were sent for a name, one pause after the other.
  struct Probes {
    int count;
    int64_t last;
    bool isClaimed;                     // they were enough, and the name was not lost since
    std::vector<std::string> proposed;  // with the last one
  };
  static inline const Probes kNoProbes = {0, INT64_MIN / 2, false, {}};
  struct Legacy {
    Endpoint asker;
    uint16_t id;
    std::vector<PacketQuestion> questions;
  };
  struct Side {
    std::unordered_map<std::string, int64_t> multicastAt;
    std::unordered_map<std::string, int64_t> probedAt;  // by others
    std::unordered_map<std::string, Probes> probes;
    int64_t unreadableAt;
  };

  void MeetRival(const Probes& own, const Packet& packet, const std::string& name, int64_t now);
  bool IsWaiting(const std::string& name, int64_t now) const;
  std::string CheckForm(const OutgoingDatagram& out, const Packet& packet) const;
  std::string CheckLegacy(const OutgoingDatagram& out, const Packet& packet);
  std::string CheckProbe(const Packet& packet, Side& side, int64_t now) const;
  std::string CheckUse(const PacketRecord& record, Side& side, int64_t now) const;
  std::string CheckInterval(const PacketRecord& record, Side& side, int64_t now) const;

  LinkState link = {};
  int64_t lateness;
  std::vector<Legacy> legacies;
  // When another's probe for a host name was the stronger one.
  std::unordered_map<std::string, int64_t> lostAt;
  Side sides[kFamilies] = {{{}, {}, {}, INT64_MIN / 2}, {{}, {}, {}, INT64_MIN / 2}};
};
