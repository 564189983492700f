#include "tests/standard/simulation.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "standard/claim.h"
#include "standard/records.h"

namespace {

// More than a core can have to send at one time.
constexpr size_t kBurstMax = 200;
constexpr int64_t kStopMax = 1000;
constexpr size_t kReflector = 9;
constexpr uint16_t kFlushBit = 0x8000;

std::string BytesOf(const Address& address) {
  return {reinterpret_cast<const char*>(address.bytes),
          size_t{address.family == Family::kIpv4 ? 4U : 16U}};
}

std::string ReverseName(const Address& address) {
  std::vector<std::string> labels;
  const std::string bytes = BytesOf(address);
  for (auto byte = bytes.rbegin(); byte != bytes.rend(); ++byte) {
    const auto value = static_cast<uint8_t>(*byte);
    if (address.family == Family::kIpv4) {
      labels.push_back(std::to_string(value));
    } else {
      labels.emplace_back(1, "0123456789abcdef"[value & 15]);
      labels.emplace_back(1, "0123456789abcdef"[value >> 4]);
    }
  }
  std::vector<std::string_view> views(labels.begin(), labels.end());
  views.push_back(address.family == Family::kIpv4 ? "in-addr" : "ip6");
  views.push_back("arpa");
  return PacketName(views);
}

PacketRecord UniqueRecord(const std::string& name, uint16_t type, const std::string& data) {
  return {PacketSection::kAnswer, name, type, kFlushBit | kClassIn, 0, data, false};
}

PacketRecord SharedRecord(const std::string& name, const std::string& data) {
  return {PacketSection::kAnswer, name, kTypePtr, kClassIn, 0, data, false};
}

PacketRecord NsecRecord(const std::string& name, const std::vector<uint16_t>& types) {
  std::string bitmap(types.back() / 8 + 1, '\0');
  for (const uint16_t type : types) {
    bitmap[type / 8] = static_cast<char>(bitmap[type / 8] | 0x80 >> type % 8);
  }
  return UniqueRecord(name, kTypeNsec,
                      name + '\0' + static_cast<char>(bitmap.size()) + std::move(bitmap));
}

std::string TxtData(const std::string& txt) {
  std::string data;
  size_t at = 0;
  while (at < txt.size()) {
    const size_t end = std::min(txt.find('\n', at), txt.size());
    if (end != at) data += static_cast<char>(end - at) + txt.substr(at, end - at);
    at = end + 1;
  }
  return data.empty() ? std::string(1, '\0') : data;
}

std::string_view LabelOfType(const std::string& type) {
  return std::string_view(type).substr(0, type.find('.'));
}

// What a device is called by now; empty when the core does not know it.
std::string DeviceLabel(const Core& core, const std::string& instance) {
  for (size_t i = 0; i < kDevicesMax; ++i) {
    const Device& device = core.devices[i];
    if (TextAt(core, device.instance) != instance) continue;
    for (const Service& service : device.services) {
      if (service.presence == Presence::kHere) return std::string(TextOf(device.label));
    }
  }
  return {};
}

std::string_view LabelOfClaim(const Core& core, size_t claim) {
  return TextOf(claim == kHostClaim ? core.hostLabel : core.devices[claim - 1].label);
}

void AddServiceRecords(const std::string& host, const std::string& label,
                       const std::string& typeLabel, uint16_t port, const std::string& txt,
                       bool isOffered, std::vector<PacketRecord>& records) {
  const std::string name = PacketName({label, typeLabel, "_tcp", "local"});
  const std::string type = PacketName({typeLabel, "_tcp", "local"});
  std::string server(4, '\0');
  Append16(server, port);
  records.push_back(UniqueRecord(name, kTypeSrv, server + host));
  records.push_back(UniqueRecord(name, kTypeTxt, TxtData(txt)));
  records.push_back(NsecRecord(name, {kTypeTxt, kTypeSrv}));
  if (!isOffered) return;
  records.push_back(SharedRecord(type, name));
  records.push_back(SharedRecord(PacketName({"_services", "_dns-sd", "_udp", "local"}), type));
  if (typeLabel == "_ipp") {
    records.push_back(
        SharedRecord(PacketName({"_universal", "_sub", "_ipp", "_tcp", "local"}), name));
  }
}

bool IsFirstOfInstance(const SimulatedHost& host, const SimulatedService& service) {
  for (const SimulatedService& other : host.services) {
    if (other.instance == service.instance) return &other == &service;
  }
  return false;
}

bool HasServiceOf(const SimulatedHost& host, const std::string& instance, std::string_view type) {
  return std::any_of(host.services.begin(), host.services.end(), [&](const auto& service) {
    return service.instance == instance && service.type == type;
  });
}

bool IsLinkLocal(const Address& address) {
  return address.family == Family::kIpv6 && address.bytes[0] == 0xFE;
}

// The address that a host sends from.
Address SourceOf(const LinkState& link, Family family) {
  Address source = {};
  bool isFound = false;
  for (size_t i = 0; i < link.addressCount; ++i) {
    const Address& address = link.addresses[i].address;
    if (address.family != family || (isFound && !IsLinkLocal(address))) continue;
    source = address;
    isFound = true;
  }
  return source;
}

bool HasAddress(const LinkState& link, const Address& address) {
  for (size_t i = 0; i < link.addressCount; ++i) {
    if (AreAddressesEqual(link.addresses[i].address, address)) return true;
  }
  return false;
}

bool IsMulticast(const Address& address) {
  return address.bytes[0] == (address.family == Family::kIpv4 ? 224 : 255);
}

Address AskerAddress(Family family, size_t asker) {
  Address address = {family, {}};
  const uint8_t start[] = {192, 168, 255};
  const uint8_t local[] = {0xFE, 0x80};
  if (family == Family::kIpv4) {
    memcpy(address.bytes, start, sizeof(start));
    address.bytes[3] = static_cast<uint8_t>(1 + asker);
  } else {
    memcpy(address.bytes, local, sizeof(local));
    address.bytes[14] = 255;
    address.bytes[15] = static_cast<uint8_t>(1 + asker);
  }
  return address;
}

bool StartsWithLabel(const std::string& name, std::string_view label) {
  return !label.empty() && name.starts_with(static_cast<char>(label.size()) + LowerCase(label));
}

bool IsReverse(const std::string& name) { return name.ends_with(std::string_view("\4arpa\0", 6)); }

}  // namespace

uint64_t Dice::Next() {
  state += 0x9E3779B97F4A7C15;
  uint64_t bits = state;
  bits = (bits ^ bits >> 30) * 0xBF58476D1CE4E5B9;
  bits = (bits ^ bits >> 27) * 0x94D049BB133111EB;
  return bits ^ bits >> 31;
}

int64_t Dice::Between(int64_t low, int64_t high) {
  return low + static_cast<int64_t>(Below(static_cast<size_t>(high - low + 1)));
}

Simulation::Simulation(uint64_t seed, int64_t lateMax, bool shallTrace)
    : dice(seed), lateness(lateMax), isTraced(shallTrace) {}

void Simulation::Fail(const std::string& what) {
  if (failure.empty()) failure = "at " + std::to_string(now) + " ms: " + what;
}

size_t Simulation::AddHost(const std::string& name, const LinkState& link) {
  SimulatedHost host = {};
  host.name = name;
  host.link = link;
  host.hasCable = true;
  host.turn = kNever;
  hosts.push_back(std::move(host));
  return hosts.size() - 1;
}

bool Simulation::IsOnFamily(const SimulatedHost& host, Family family) const {
  if (!host.isOn || !host.hasCable) return false;
  for (size_t i = 0; i < host.link.addressCount; ++i) {
    if (host.link.addresses[i].address.family == family) return true;
  }
  return false;
}

// Hands something to a core, sends what it has to say, and looks at what it lost.
template <typename Call>
void Simulation::Do(size_t index, const Call& call) {
  SimulatedHost& host = hosts[index];
  uint8_t held[kClaimsMax];
  for (size_t i = 0; i < kClaimsMax; ++i) held[i] = host.core->claims[i].heldOn;
  call(*host.core);
  ExcuseLost(index, held);
  Settle(index);
}

void Simulation::SwitchOn(size_t index) {
  SimulatedHost& host = hosts[index];
  if (host.isOn) return;
  host.isOn = true;
  host.isStopping = false;
  host.core = std::make_unique<Core>();
  host.check = std::make_unique<SenderCheck>(lateness);
  InitCore(*host.core, host.name, dice.Next());
  const std::vector<SimulatedService> services = std::move(host.services);
  host.services.clear();
  if (host.hasCable) SetLink(index, host.link);
  for (const SimulatedService& service : services) AddService(index, service);
  Settle(index);
}

void Simulation::Crash(size_t index) {
  SimulatedHost& host = hosts[index];
  if (!host.isOn) return;
  if (isTraced) fprintf(stderr, "%lld host %zu crashes\n", static_cast<long long>(now), index);
  host.isOn = false;
  host.turn = kNever;
  for (size_t i = 0; i < kFamilies; ++i) ExcuseAll(index, static_cast<Family>(i));
}

void Simulation::Stop(size_t index) {
  SimulatedHost& host = hosts[index];
  if (!host.isOn || host.isStopping) return;
  if (isTraced) fprintf(stderr, "%lld host %zu stops\n", static_cast<long long>(now), index);
  host.isStopping = true;
  host.stopBegan = now;
  Do(index, [&](Core& core) { BeginStop(core, now); });
}

void Simulation::Plug(size_t index, bool hasCable) {
  SimulatedHost& host = hosts[index];
  host.hasCable = hasCable;
  SetLink(index, host.link);
}

void Simulation::SetLink(size_t index, const LinkState& link) {
  SimulatedHost& host = hosts[index];
  const bool isOther = memcmp(link.mac, host.link.mac, sizeof(link.mac)) != 0;
  if (isTraced) {
    fprintf(stderr, "%lld host %zu link %s, %u addresses%s\n", static_cast<long long>(now), index,
            host.hasCable ? "up" : "down", link.addressCount, isOther ? ", other MAC" : "");
  }
  host.link = link;
  if (!host.isOn) return;
  for (size_t i = 0; i < kFamilies; ++i) {
    if (isOther || !IsOnFamily(host, static_cast<Family>(i))) {
      ExcuseAll(index, static_cast<Family>(i));
    }
  }
  const LinkState state = host.hasCable ? link : LinkState{};
  host.check->SetLink(state);
  Do(index, [&](Core& core) { HandleLink(core, state, now); });
}

void Simulation::AddService(size_t index, const SimulatedService& service) {
  SimulatedHost& host = hosts[index];
  host.services.push_back(service);
  if (!host.isOn) return;
  if (isTraced) {
    fprintf(stderr, "%lld host %zu adds %s %s\n", static_cast<long long>(now), index,
            service.instance.c_str(), service.type.c_str());
  }
  Do(index, [&](Core& core) {
    if (!::AddService(core, service.instance, service.type, service.txt, service.port, now)) {
      Fail("a service was refused: " + service.instance + " " + service.type);
    }
  });
}

void Simulation::RemoveService(size_t index, size_t number) {
  SimulatedHost& host = hosts[index];
  const SimulatedService service = host.services[number];
  host.services.erase(host.services.begin() + static_cast<long>(number));
  if (!host.isOn) return;
  if (isTraced) {
    fprintf(stderr, "%lld host %zu removes %s %s\n", static_cast<long long>(now), index,
            service.instance.c_str(), service.type.c_str());
  }
  Do(index, [&](Core& core) {
    if (!::RemoveService(core, service.instance, service.type, now)) {
      Fail("a service was not known: " + service.instance + " " + service.type);
    }
  });
}

void Simulation::Ask(Family family, const Asking& asking) {
  Packet packet = {};
  packet.flags = asking.isTruncated ? kFlagTruncated : 0;
  packet.id = asking.port == kMdnsPort ? 0 : asking.port;
  packet.questions = asking.questions;
  packet.records = asking.known;
  auto what = std::make_shared<Transmission>();
  what->bytes = WritePacket(packet);
  what->source = {AskerAddress(family, asking.asker), asking.port};
  what->isMulticast = true;
  what->packet = packet;
  if (isTraced) {
    fprintf(stderr, "%lld asker v%d%s\n", static_cast<long long>(now),
            family == Family::kIpv4 ? 4 : 6, PacketInWords(packet).c_str());
  }
  Spread(hosts.size(), family, what);
}

void Simulation::RunUntil(int64_t until) {
  while (failure.empty() && NextTime() <= until) Step();
  now = std::max(now, until);
}

void Simulation::RunUntilSilent(int64_t limit) {
  const int64_t end = now + limit;
  while (failure.empty() && NextTime() != kNever) {
    if (NextTime() > end) {
      Fail("the link does not fall silent");
      return;
    }
    Step();
  }
}

int64_t Simulation::NextTime() const {
  int64_t next = arrivals.empty() ? kNever : arrivals.top().time;
  for (const SimulatedHost& host : hosts) next = Earlier(next, host.turn);
  return next;
}

void Simulation::Step() {
  now = std::max(now, NextTime());
  while (failure.empty() && !arrivals.empty() && arrivals.top().time <= now) {
    const Arrival arrival = arrivals.top();
    arrivals.pop();
    Deliver(arrival);
  }
  for (size_t i = 0; i < hosts.size(); ++i) {
    if (hosts[i].isOn && hosts[i].turn <= now) Do(i, [](Core&) {});
  }
}

void Simulation::Settle(size_t index) {
  SimulatedHost& host = hosts[index];
  size_t burst = 0;
  while (failure.empty() && TakeDatagram(*host.core, now, *out)) {
    Transmit(index, *out);
    if (++burst == kBurstMax) Fail("host " + std::to_string(index) + " does not stop sending");
  }
  const int64_t due = NextTurn(*host.core);
  if (due <= now) Fail("host " + std::to_string(index) + " has a turn that does nothing");
  host.turn = due == kNever || lateness == 0 ? due : due + dice.Between(0, lateness);
  if (!host.isStopping) return;
  if (IsStopped(*host.core)) {
    if (due != kNever) Fail("a host that has stopped has turns");
    host.isOn = false;
    host.turn = kNever;
    CheckStopped(index);
  } else if (now - host.stopBegan > kStopMax) {
    Fail("a stop takes longer than a second");
  }
}

void Simulation::Transmit(size_t index, const OutgoingDatagram& datagram) {
  SimulatedHost& host = hosts[index];
  ++sent;
  Packet packet;
  const std::string wrong = host.check->Send(datagram, now, packet);
  if (isTraced) Trace(index, datagram, packet);
  if (!wrong.empty()) {
    Fail("host " + std::to_string(index) + " sends" + PacketInWords(packet) + ": " + wrong);
    return;
  }
  const Family family = datagram.destination.address.family;
  auto what = std::make_shared<Transmission>();
  what->bytes.assign(reinterpret_cast<const char*>(datagram.bytes), datagram.length);
  what->source = {SourceOf(host.link, family), kMdnsPort};
  what->isMulticast = IsMulticast(datagram.destination.address);
  what->packet = std::move(packet);
  const bool isResponse = (what->packet.flags & kFlagResponse) != 0;
  if (isResponse) CheckHolder(index, family, what->packet);
  if (!what->isMulticast) {
    SendTo(datagram.destination.address, what);
    return;
  }
  if (isResponse) listeners[static_cast<size_t>(family)].Hear(what->packet, index, now);
  // It comes back by itself, at once and for sure.
  arrivals.push({now, order++, index, what});
  if (isReflecting) {
    auto again = std::make_shared<Transmission>(*what);
    again->source.address = AskerAddress(family, kReflector);
    arrivals.push({now, order++, index, again});
  }
  Spread(index, family, what);
}

void Simulation::Spread(size_t sender, Family family,
                        const std::shared_ptr<const Transmission>& what) {
  for (size_t i = 0; i < hosts.size(); ++i) {
    const SimulatedHost& host = hosts[i];
    if (i == sender || !host.isOn || !IsOnFamily(host, family)) continue;
    if (sender < hosts.size() && hosts[sender].group != host.group) continue;
    Carry(i, what);
  }
}

// Of several hosts with one hardware address the link picks one.
void Simulation::SendTo(const Address& address, const std::shared_ptr<const Transmission>& what) {
  for (size_t i = 0; i < hosts.size(); ++i) {
    if (!IsOnFamily(hosts[i], address.family) || !HasAddress(hosts[i].link, address)) continue;
    std::vector<size_t> equal;
    for (size_t j = 0; j < hosts.size(); ++j) {
      if (IsOnFamily(hosts[j], address.family) &&
          memcmp(hosts[j].link.mac, hosts[i].link.mac, kHardwareAddressSize) == 0) {
        equal.push_back(j);
      }
    }
    Carry(equal[dice.Below(equal.size())], what);
    return;
  }
  ++told;
}

void Simulation::Carry(size_t host, const std::shared_ptr<const Transmission>& what) {
  const size_t copies = dice.Chance(faults.doublePercent) ? 2 : 1;
  for (size_t i = 0; i < copies; ++i) {
    if (dice.Chance(faults.lossPercent)) continue;
    arrivals.push({now + dice.Between(0, faults.delayMax), order++, host, what});
  }
}

void Simulation::Deliver(const Arrival& arrival) {
  SimulatedHost& host = hosts[arrival.host];
  const Transmission& what = *arrival.what;
  if (!host.isOn || !host.hasCable) return;
  const ReceivedDatagram datagram = {reinterpret_cast<const uint8_t*>(what.bytes.data()),
                                     what.bytes.size(), what.source, what.isMulticast};
  host.check->Hear(what.packet, what.source, now);
  Do(arrival.host, [&](Core& core) { HandleDatagram(core, datagram, now); });
}

// On a good link two hosts that hear each other never both hold a name.
void Simulation::CheckHolder(size_t index, Family family, const Packet& packet) {
  for (const PacketRecord& record : packet.records) {
    if (record.ttl == 0 || IsSharedRecord(record) || IsReverse(record.name)) continue;
    size_t& holder =
        holders[static_cast<size_t>(family)].try_emplace(record.name, index).first->second;
    const size_t before = holder;
    holder = index;
    if (!areNamesUnique || before == index || !IsOnFamily(hosts[before], family) ||
        hosts[before].isStopping) {
      continue;
    }
    const std::vector<std::string> names = HeldNames(before, family);
    if (std::find(names.begin(), names.end(), record.name) != names.end()) {
      Fail("hosts " + std::to_string(before) + " and " + std::to_string(index) + " both hold " +
           NameInWords(record.name));
    }
  }
}

// A second after the last goodbye nothing is left.
void Simulation::CheckStopped(size_t index) {
  constexpr int64_t kSecond = 1000;
  for (const Listener& listener : listeners) {
    listener.ForEachAlive(now + kSecond, [&](const HeardRecord& heard) {
      if (heard.sender != index || heard.isExcused) return;
      Packet packet = {};
      packet.records.push_back(heard.record);
      Fail("host " + std::to_string(index) + " stops and leaves behind" + PacketInWords(packet));
    });
  }
}

void Simulation::ExcuseAll(size_t host, Family family) {
  listeners[static_cast<size_t>(family)].Excuse(host, [](const HeardRecord&) { return true; });
}

// What another host contests is not this one's to withdraw.
void Simulation::ExcuseLost(size_t index, const uint8_t* heldBefore) {
  const SimulatedHost& host = hosts[index];
  for (size_t i = 0; i < kClaimsMax; ++i) {
    const Claim& claim = host.core->claims[i];
    const unsigned lost = heldBefore[i] & ~static_cast<unsigned>(claim.heldOn);
    if (lost == 0 || claim.step == ClaimStep::kNone) continue;
    const std::string_view label = LabelOfClaim(*host.core, i);
    for (size_t family = 0; family < kFamilies; ++family) {
      if ((lost >> family & 1U) == 0) continue;
      host.check->LoseNames(static_cast<Family>(family), label);
      listeners[family].Excuse(index, [&](const HeardRecord& heard) {
        const PacketRecord& record = heard.record;
        return !IsSharedRecord(record) &&
               (StartsWithLabel(record.name, label) || (i == kHostClaim && IsReverse(record.name)));
      });
    }
  }
}

void Simulation::Trace(size_t host, const OutgoingDatagram& datagram, const Packet& packet) const {
  const Address& to = datagram.destination.address;
  fprintf(stderr, "%lld host %zu v%d%s %zu:%s\n", static_cast<long long>(now), host,
          to.family == Family::kIpv4 ? 4 : 6, IsMulticast(to) ? "" : " to one", datagram.length,
          PacketInWords(packet).c_str());
}

std::vector<PacketRecord> Simulation::LiveRecords(size_t index, Family family) const {
  std::vector<PacketRecord> records;
  const SimulatedHost& host = hosts[index];
  if (!IsOnFamily(host, family)) return records;
  const std::string name = PacketName({HostName(*host.core), "local"});
  std::vector<uint16_t> types;
  for (size_t i = 0; i < host.link.addressCount; ++i) {
    const Address& address = host.link.addresses[i].address;
    const std::string reverse = ReverseName(address);
    types.push_back(address.family == Family::kIpv4 ? kTypeA : kTypeAaaa);
    records.push_back(UniqueRecord(name, types.back(), BytesOf(address)));
    records.push_back(UniqueRecord(reverse, kTypePtr, name));
    records.push_back(NsecRecord(reverse, {kTypePtr}));
  }
  std::sort(types.begin(), types.end());
  records.push_back(NsecRecord(name, types));
  for (const SimulatedService& service : host.services) {
    const std::string label = DeviceLabel(*host.core, service.instance);
    AddServiceRecords(name, label, std::string(LabelOfType(service.type)), service.port,
                      service.txt, true, records);
    if (IsFirstOfInstance(host, service) &&
        !HasServiceOf(host, service.instance, "_printer._tcp")) {
      AddServiceRecords(name, label, "_printer", 0, "", false, records);
    }
  }
  return records;
}

std::vector<std::string> Simulation::HeldNames(size_t index, Family family) const {
  std::vector<std::string> names;
  const SimulatedHost& host = hosts[index];
  if (!IsOnFamily(host, family)) return names;
  const unsigned bit = 1U << static_cast<unsigned>(family);
  if ((host.core->claims[kHostClaim].heldOn & bit) != 0) {
    names.push_back(PacketName({HostName(*host.core), "local"}));
  }
  for (size_t i = 0; i < kServicesMax; ++i) {
    const Service& service = ServiceAt(*host.core, i);
    if (service.presence != Presence::kHere || !service.isPublished ||
        (ClaimOfService(*host.core, i).heldOn & bit) == 0) {
      continue;
    }
    names.push_back(PacketName({TextOf(DeviceOf(*host.core, i).label),
                                TextOf(host.core->types[service.type].label), "_tcp", "local"}));
  }
  return names;
}

bool Simulation::IsSettled(size_t index) const {
  const SimulatedHost& host = hosts[index];
  if (!host.isOn || host.core->families == 0) return true;
  for (size_t claim = 0; claim < kClaimsMax; ++claim) {
    bool isWanted = claim == kHostClaim;
    for (size_t i = 0; claim != kHostClaim && i < kServicesPerDevice; ++i) {
      const Service& service = ServiceAt(*host.core, (claim - 1) * kServicesPerDevice + i);
      isWanted = isWanted || service.presence == Presence::kHere;
    }
    if (isWanted && host.core->claims[claim].heldOn != host.core->families) return false;
  }
  return true;
}

bool Simulation::IsRenamed(size_t index) const {
  const SimulatedHost& host = hosts[index];
  if (!host.isOn) return false;
  const auto isCut = [](const std::string& label, const std::string& text) {
    return label != text.substr(0, label.size());
  };
  if (isCut(HostName(*host.core), host.name)) return true;
  return std::any_of(host.services.begin(), host.services.end(), [&](const auto& service) {
    return isCut(DeviceLabel(*host.core, service.instance), service.instance);
  });
}
