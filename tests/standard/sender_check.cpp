#include "tests/standard/sender_check.h"

#include <algorithm>
#include <cstring>
#include <set>

namespace {

constexpr uint16_t kClassInternet = 1;
constexpr uint16_t kTopBit = 0x8000;
constexpr uint16_t kResponse = 0x8400;
constexpr uint16_t kTruncated = 0x0200;
constexpr uint16_t kErrors = 0x780F;  // other operations, and response codes
constexpr uint16_t kTypePointer = 12;
constexpr uint16_t kTypeText = 16;
constexpr uint16_t kTypeAll = 255;
// On a link with less not even a question may fit (RFC 1122, section 3.3.3).
constexpr uint16_t kMtuMin = 576;
constexpr size_t kHeaders = 48;  // of IPv6 and UDP
constexpr int64_t kSecond = 1000;
constexpr int64_t kDefence = 250;
constexpr int64_t kProbePause = 250;
constexpr int kProbesNeeded = 3;
constexpr size_t kLegaciesMax = 64;

bool IsReverse(std::string_view name) { return name.ends_with(std::string_view("\4arpa\0", 6)); }

uint32_t FullTtl(const PacketRecord& record) {
  return IsSharedRecord(record) || record.type == kTypeText ? 4500 : 120;
}

bool IsGroup(const Address& address) {
  return address.family == Family::kIpv4
             ? memcmp(address.bytes, "\xE0\0\0\xFB", 4) == 0
             : memcmp(address.bytes, "\xFF\x02\0\0\0\0\0\0\0\0\0\0\0\0\0\xFB", 16) == 0;
}

// Prefixes are whole bytes here.
bool IsNear(const LinkState& link, const Address& address) {
  if (address.family == Family::kIpv6 && address.bytes[0] == 0xFE) return true;
  for (size_t i = 0; i < link.addressCount; ++i) {
    const LinkAddress& own = link.addresses[i];
    if (own.address.family == address.family &&
        memcmp(own.address.bytes, address.bytes, own.prefixLength / 8) == 0) {
      return true;
    }
  }
  return false;
}

bool HasFamily(const LinkState& link, Family family) {
  for (size_t i = 0; link.isUp && i < link.addressCount; ++i) {
    if (link.addresses[i].address.family == family) return true;
  }
  return false;
}

std::string About(const char* what, const PacketRecord& record) {
  Packet packet = {};
  packet.records.push_back(record);
  return what + std::string(":") + PacketInWords(packet);
}

std::string CheckRecord(const PacketRecord& record, bool isLegacy) {
  if (record.section == PacketSection::kAuthority) return About("authority in a response", record);
  if ((record.classBits & ~kTopBit) != kClassInternet) return About("a strange class", record);
  const bool isFlushing = (record.classBits & kTopBit) != 0;
  if (isLegacy) {
    if (isFlushing) return About("a cache-flush bit for a conventional resolver", record);
    if (record.ttl > 10 || record.ttl == 0) return About("a TTL for others", record);
    if (record.isDataCompressed) return About("compressed data for a resolver", record);
    return {};
  }
  if (isFlushing == IsSharedRecord(record)) return About("the wrong cache-flush bit", record);
  if (record.ttl != 0 && record.ttl != FullTtl(record)) return About("a strange TTL", record);
  return {};
}

std::string CheckResponse(const Packet& packet, bool isLegacy) {
  if ((packet.flags & ~(isLegacy ? kTruncated : 0)) != kResponse) return "flags of no response";
  std::set<std::string> keys;
  size_t goodbyes = 0;
  size_t answers = 0;
  for (const PacketRecord& record : packet.records) {
    const std::string wrong = CheckRecord(record, isLegacy);
    if (!wrong.empty()) return wrong;
    if (!keys.insert(RecordKeyOf(record)).second) return About("twice in a packet", record);
    if (record.ttl == 0) ++goodbyes;
    if (record.section == PacketSection::kAnswer) ++answers;
  }
  if (answers == 0 && !isLegacy) return "a response without an answer";
  if (goodbyes != 0 && goodbyes != packet.records.size()) return "goodbyes among other records";
  return {};
}

bool AreRepeated(const std::vector<PacketQuestion>& repeated,
                 const std::vector<PacketQuestion>& asked) {
  if (repeated.size() > asked.size()) return false;
  for (size_t i = 0; i < repeated.size(); ++i) {
    if (repeated[i].name != asked[i].name || repeated[i].type != asked[i].type ||
        repeated[i].classBits != asked[i].classBits) {
      return false;
    }
  }
  return true;
}

bool IsHostName(const std::string& name) {
  const size_t rest = size_t{1} + static_cast<uint8_t>(name[0]);
  return name.substr(rest) == std::string_view("\5local\0", 7);
}

// What a probe proposes for a name, as the tie-break orders it.
std::vector<std::string> ProposedFor(const Packet& packet, const std::string& name) {
  std::vector<std::string> proposed;
  for (const PacketRecord& record : packet.records) {
    if (record.section != PacketSection::kAuthority || record.name != name) continue;
    std::string key;
    Append16(key, record.classBits & ~uint32_t{kTopBit});
    Append16(key, record.type);
    proposed.push_back(key + record.proposed);
  }
  std::sort(proposed.begin(), proposed.end());
  return proposed;
}

bool IsAsked(const Packet& packet, const std::string& name) {
  for (const PacketQuestion& question : packet.questions) {
    if (question.name == name) return true;
  }
  return false;
}

bool IsProposed(const Packet& packet, const std::string& name) {
  for (const PacketRecord& record : packet.records) {
    if (record.name == name) return true;
  }
  return false;
}

}  // namespace

bool IsSharedRecord(const PacketRecord& record) {
  return record.type == kTypePointer && !IsReverse(record.name);
}

std::string RecordKeyOf(const PacketRecord& record) {
  std::string key = record.name;
  Append16(key, record.type);
  return key + record.data;
}

void SenderCheck::SetLink(const LinkState& state) {
  const bool isOther = memcmp(link.mac, state.mac, sizeof(link.mac)) != 0;
  link = state;
  lostAt.clear();
  for (size_t i = 0; i < kFamilies; ++i) {
    // Other addresses will be proposed from now on.
    for (auto& [name, probes] : sides[i].probes) probes.proposed.clear();
    if (isOther || !HasFamily(link, static_cast<Family>(i))) sides[i].probes.clear();
  }
}

bool SenderCheck::IsWaiting(const std::string& name, int64_t now) const {
  const auto lost = lostAt.find(name);
  return lost != lostAt.end() && now < lost->second + kSecond;
}

// RFC 6762, section 8.2: of two that probe at the same time the one with the later records goes on.
// A printer's claim begins again with the host's, whatever it had lost, so this is about hosts.
void SenderCheck::MeetRival(const Probes& own, const Packet& packet, const std::string& name,
                            int64_t now) {
  const bool isProbing = !own.isClaimed && !own.proposed.empty() && now < own.last + kProbePause;
  if (!IsHostName(name) || !isProbing || IsWaiting(name, now)) return;
  if (own.proposed < ProposedFor(packet, name)) lostAt[name] = now;
}

void SenderCheck::HearUnreadable(Family family, int64_t now) {
  sides[static_cast<size_t>(family)].unreadableAt = now;
}

void SenderCheck::Hear(const Packet& packet, const Endpoint& source, int64_t now) {
  if ((packet.flags & (kTopBit | kErrors)) != 0) return;
  Side& side = sides[static_cast<size_t>(source.address.family)];
  for (const PacketRecord& record : packet.records) {
    if (record.section != PacketSection::kAuthority) continue;
    side.probedAt[record.name] = now;
    const auto own = side.probes.find(record.name);
    if (own != side.probes.end()) MeetRival(own->second, packet, record.name, now);
  }
  if (source.port == kMdnsPort) return;
  if (legacies.size() == kLegaciesMax) legacies.erase(legacies.begin());
  legacies.push_back({source, packet.id, packet.questions});
}

void SenderCheck::LoseNames(Family family, std::string_view label) {
  const std::string start = static_cast<char>(label.size()) + LowerCase(label);
  std::erase_if(sides[static_cast<size_t>(family)].probes,
                [&](const auto& entry) { return entry.first.starts_with(start); });
}

std::string SenderCheck::CheckForm(const OutgoingDatagram& out, const Packet& packet) const {
  if (!HasFamily(link, out.destination.address.family)) return "sent without an address";
  const bool isGroup = IsGroup(out.destination.address);
  if (isGroup && out.destination.port != kMdnsPort) return "sent to a strange port";
  if (!isGroup && !IsNear(link, out.destination.address)) return "sent to a host far away";
  const size_t names = packet.questions.size();
  if (out.length + kHeaders > link.mtu && packet.records.size() > 1 && names != 1) {
    return "longer than the link's MTU";
  }
  return {};
}

std::string SenderCheck::CheckLegacy(const OutgoingDatagram& out, const Packet& packet) {
  for (const Legacy& legacy : legacies) {
    if (legacy.asker.port == out.destination.port && legacy.id == packet.id &&
        AreAddressesEqual(legacy.asker.address, out.destination.address) &&
        (!packet.questions.empty() || link.mtu < kMtuMin) &&
        AreRepeated(packet.questions, legacy.questions)) {
      return CheckResponse(packet, true);
    }
  }
  return "an answer to a resolver that did not ask";
}

std::string SenderCheck::CheckProbe(const Packet& packet, Side& side, int64_t now) const {
  for (const PacketQuestion& question : packet.questions) {
    if (question.type != kTypeAll || question.classBits != (kClassInternet | kTopBit)) {
      return "a question that is no probe: " + NameInWords(question.name);
    }
    if (!IsProposed(packet, question.name)) {
      return "a probe without a record: " + NameInWords(question.name);
    }
    Probes& probes = side.probes.try_emplace(question.name, kNoProbes).first->second;
    // With other records it is another claim.
    std::vector<std::string> proposed = ProposedFor(packet, question.name);
    if (proposed == probes.proposed && IsWaiting(question.name, now)) {
      return "goes on probing: " + NameInWords(question.name);
    }
    probes.proposed = std::move(proposed);
    // Who begins again need not wait, but begins again.
    probes.count = now < probes.last + kProbePause ? 1 : probes.count + 1;
    probes.last = now;
  }
  for (const PacketRecord& record : packet.records) {
    if (record.section != PacketSection::kAuthority || !IsAsked(packet, record.name)) {
      return About("in a probe", record);
    }
    if (record.classBits != kClassInternet || record.ttl != FullTtl(record)) {
      return About("proposed with a strange class or TTL", record);
    }
  }
  return packet.flags == 0 && !packet.questions.empty() ? "" : "neither response nor probe";
}

// RFC 6762, section 8.1: three probes, and a pause behind each.
std::string SenderCheck::CheckUse(const PacketRecord& record, Side& side, int64_t now) const {
  if (record.ttl == 0 || IsSharedRecord(record) || IsReverse(record.name)) return {};
  Probes& probes = side.probes.try_emplace(record.name, kNoProbes).first->second;
  if (probes.isClaimed) return {};
  if (probes.count < kProbesNeeded || now < probes.last + kProbePause) {
    return About("used before it was probed for", record);
  }
  probes.isClaimed = true;
  return {};
}

// RFC 6762, section 6: once within a second, within 250 ms in defence against a probe, for which
// the responder waits a millisecond more.
std::string SenderCheck::CheckInterval(const PacketRecord& record, Side& side, int64_t now) const {
  if (record.ttl == 0) return {};
  int64_t& last = side.multicastAt.try_emplace(RecordKeyOf(record), INT64_MIN / 2).first->second;
  const int64_t since = now - last;
  last = now;
  if (since >= kSecond) return {};
  const auto probed = side.probedAt.find(record.name);
  const int64_t earliest = now - kDefence - 1 - lateness;
  const bool isDefence = (probed != side.probedAt.end() && probed->second >= earliest) ||
                         side.unreadableAt >= earliest;
  if (isDefence && since >= kDefence) return {};
  return About("multicast again too early", record) + " after " + std::to_string(since) + " ms";
}

std::string SenderCheck::Send(const OutgoingDatagram& out, int64_t now, Packet& packet) {
  const std::string_view bytes(reinterpret_cast<const char*>(out.bytes), out.length);
  std::string wrong = ReadPacket(bytes, packet);
  if (wrong.empty()) wrong = CheckForm(out, packet);
  if (!wrong.empty()) return wrong;
  Side& side = sides[static_cast<size_t>(out.destination.address.family)];
  const bool isResponse = (packet.flags & kTopBit) != 0;
  const bool isMulticast = IsGroup(out.destination.address);
  if (!isMulticast && out.destination.port != kMdnsPort) {
    wrong = CheckLegacy(out, packet);
  } else if (packet.id != 0) {
    wrong = "an ID";
  } else if (isResponse) {
    wrong = packet.questions.empty() ? CheckResponse(packet, false) : "a question in a response";
  } else {
    wrong = isMulticast ? CheckProbe(packet, side, now) : "a query to one host";
  }
  if (!isResponse) return wrong;
  for (const PacketRecord& record : packet.records) {
    if (wrong.empty()) wrong = CheckUse(record, side, now);
    if (wrong.empty() && isMulticast) wrong = CheckInterval(record, side, now);
  }
  return wrong;
}
