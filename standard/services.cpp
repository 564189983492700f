// The printers' services, and the addresses of the host.
#include "standard/services.h"

#include <cstring>

#include "standard/claim.h"
#include "standard/clock.h"
#include "standard/label.h"
#include "standard/outbox.h"
#include "standard/records.h"

namespace {

// Where a device's service of the flagship type is, or the claim in its place.
constexpr size_t kFlagshipPlace = 0;

// The types of printers that do not print by the flagship type's protocol.
constexpr std::string_view kPrintingLabels[] = {"_ipp", "_pdl-datastream"};

bool IsLabelCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
}

bool IsTypeLabel(std::string_view label) {
  if (label.size() < 2 || label.size() > kTypeLabelMax || label[0] != '_') return false;
  label.remove_prefix(1);
  for (const char c : label) {
    if (!IsLabelCharacter(c)) return false;
  }
  return true;
}

// Reads a type like "_ipp._tcp". False when it is none.
bool ParseType(std::string_view text, ServiceType& type) {
  const size_t dot = text.find('.');
  if (dot == std::string_view::npos) return false;
  const std::string_view label(text.data(), dot);
  const std::string_view protocol(text.data() + dot + 1, text.size() - dot - 1);
  if (!IsTypeLabel(label) || (protocol != "_tcp" && protocol != "_udp")) return false;
  type.label = MakeLabel(label, {});
  type.isUdp = protocol == "_udp";
  return true;
}

ServiceType FlagshipType() { return {MakeLabel(kFlagshipLabel, {}), false}; }

bool IsSameType(const ServiceType& a, const ServiceType& b) {
  return a.isUdp == b.isUdp && AreLabelsEqual(TextOf(a.label), TextOf(b.label));
}

bool IsTypeUsed(const Core& core, size_t type) {
  for (size_t i = 0; i < kServicesMax; ++i) {
    const Service& service = ServiceAt(core, i);
    if (service.presence != Presence::kFree && service.type == type) return true;
  }
  return false;
}

// The index of a type, which is entered if need be; kServiceTypesMax when there is no place.
size_t EnterType(Core& core, const ServiceType& type) {
  size_t free = kServiceTypesMax;
  for (size_t i = 0; i < kServiceTypesMax; ++i) {
    if (IsSameType(core.types[i], type)) return i;
    if (free == kServiceTypesMax && !IsTypeUsed(core, i)) free = i;
  }
  if (free == kServiceTypesMax) return free;
  core.types[free] = type;
  return free;
}

bool IsOffered(const Service& service) {
  return service.presence == Presence::kHere && !service.isReserved;
}

bool IsAnyOffered(const Device& device) {
  for (const Service& service : device.services) {
    if (IsOffered(service)) return true;
  }
  return false;
}

bool IsFree(const Device& device) {
  for (const Service& service : device.services) {
    if (service.presence != Presence::kFree) return false;
  }
  return true;
}

bool IsCalled(const Core& core, const Device& device, std::string_view instance) {
  const std::string_view own = TextAt(core, device.instance);
  return !own.empty() && own.size() == instance.size() &&
         memcmp(own.data(), instance.data(), own.size()) == 0;
}

// The device of an instance name, also one that is gone; kDevicesMax when there is none.
size_t FindDevice(const Core& core, std::string_view instance) {
  for (size_t i = 0; i < kDevicesMax; ++i) {
    if (IsCalled(core, core.devices[i], instance)) return i;
  }
  return kDevicesMax;
}

// A place for another device: one that was never used, else one whose device is gone, else one
// whose device is leaving and has to do without further goodbyes. kDevicesMax when there is none.
size_t FindPlace(const Core& core) {
  size_t gone = kDevicesMax;
  size_t leaving = kDevicesMax;
  for (size_t i = 0; i < kDevicesMax; ++i) {
    const Device& device = core.devices[i];
    if (device.instance.length == 0) return i;
    if (IsFree(device)) {
      gone = i;
    } else if (!IsAnyOffered(device)) {
      leaving = i;
    }
  }
  return gone != kDevicesMax ? gone : leaving;
}

void MoveUp(TextPlace& place, size_t behind, size_t length) {
  if (place.length == 0 || place.offset < behind) return;
  place.offset = static_cast<uint16_t>(place.offset - length);
}

// Takes a text away; those behind it move up.
void DropText(Core& core, TextPlace& place) {
  if (place.length == 0) return;
  const size_t length = place.length;
  const size_t behind = place.offset + length;
  memmove(core.texts.bytes + place.offset, core.texts.bytes + behind, core.texts.length - behind);
  core.texts.length = static_cast<uint16_t>(core.texts.length - length);
  place.length = 0;
  for (Device& device : core.devices) {
    MoveUp(device.instance, behind, length);
    for (Service& service : device.services) MoveUp(service.txt, behind, length);
  }
}

// Keeps a text in a place that has none.
void AddText(Core& core, TextPlace& place, const void* text, size_t length) {
  place = {core.texts.length, static_cast<uint16_t>(length)};
  memcpy(core.texts.bytes + core.texts.length, text, length);
  core.texts.length = static_cast<uint16_t>(core.texts.length + length);
}

void ResetService(Core& core, Service& service) {
  DropText(core, service.txt);
  service = {};
}

void ResetClaim(Core& core, size_t device) {
  Claim& claim = core.claims[1 + device];
  claim.step = ClaimStep::kNone;
  claim.due = kNever;
  claim.heldOn = 0;
}

void SettleIn(Core& core, size_t index, std::string_view instance) {
  Device& device = core.devices[index];
  DropText(core, device.instance);
  for (Service& service : device.services) DropText(core, service.txt);
  device = {};
  AddText(core, device.instance, instance.data(), instance.size());
  InitClaim(core.claims[1 + index]);
}

// The place of a service within its device: that of the same type, else a free one, else one whose
// service is leaving. kServicesPerDevice when there is none.
size_t FindServicePlace(const Core& core, const Device& device, const ServiceType& type) {
  if (IsSameType(type, FlagshipType())) return kFlagshipPlace;
  size_t free = kServicesPerDevice;
  size_t leaving = kServicesPerDevice;
  for (size_t i = kFlagshipPlace + 1; i < kServicesPerDevice; ++i) {
    const Service& service = device.services[i];
    if (service.presence != Presence::kFree && IsSameType(core.types[service.type], type)) return i;
    if (service.presence == Presence::kFree) free = i;
    if (service.presence == Presence::kLeaving) leaving = i;
  }
  return free != kServicesPerDevice ? free : leaving;
}

bool IsPrinter(const Core& core, const Device& device) {
  for (const Service& service : device.services) {
    if (!IsOffered(service)) continue;
    for (const std::string_view label : kPrintingLabels) {
      if (AreLabelsEqual(TextOf(core.types[service.type].label), label)) return true;
    }
  }
  return false;
}

// RFC 6763, section 8: a printer without the flagship type's protocol still claims its name there,
// with port 0.
void ReserveFlagship(Core& core, Device& device) {
  Service& service = device.services[kFlagshipPlace];
  if (!IsPrinter(core, device)) return;
  if (service.isReserved && service.presence == Presence::kLeaving) {
    service.presence = Presence::kHere;
  }
  if (service.presence != Presence::kFree) return;
  const size_t type = EnterType(core, FlagshipType());
  if (type == kServiceTypesMax) return;
  ResetService(core, service);
  service.presence = Presence::kHere;
  service.isReserved = true;
  service.type = static_cast<uint8_t>(type);
  constexpr uint8_t kNoText[] = {0};
  AddText(core, service.txt, kNoText, sizeof(kNoText));
}

void FreeService(Core& core, size_t index, int64_t now) {
  const size_t device = index / kServicesPerDevice;
  ServiceAt(core, index).presence = Presence::kFree;
  DropText(core, ServiceAt(core, index).txt);
  if (IsFree(core.devices[device])) {
    ResetClaim(core, device);
    return;
  }
  if (index % kServicesPerDevice != kFlagshipPlace) return;
  ReserveFlagship(core, core.devices[device]);
  if (core.families != 0 && IsAnyOffered(core.devices[device])) {
    BeginDeviceClaim(core, 1 + device, now);
  }
}

// Of a service or an address.
template <typename T>
void BeginLeaving(T& leaving, int64_t now) {
  leaving.presence = Presence::kLeaving;
  leaving.goodbyesLeft = kGoodbyes;
  leaving.due = now;
}

void LeaveService(Core& core, size_t index, int64_t now) {
  Service& service = ServiceAt(core, index);
  if (service.isListed && core.families != 0) {
    BeginLeaving(service, now);
  } else {
    FreeService(core, index, now);
  }
}

// A device that offers nothing any more goes whole. The flagship's place comes last: while others
// are there it would be reserved again.
void LeaveDevice(Core& core, size_t device, int64_t now) {
  core.claims[1 + device].step = ClaimStep::kNone;
  core.claims[1 + device].due = kNever;
  static_assert(kFlagshipPlace == 0, "the last one when counted down");
  for (size_t i = kServicesPerDevice; i-- > 0;) {
    const size_t index = device * kServicesPerDevice + i;
    if (ServiceAt(core, index).presence == Presence::kHere) LeaveService(core, index, now);
  }
}

size_t FindOffered(const Core& core, size_t device, const ServiceType& type) {
  for (size_t i = 0; device < kDevicesMax && i < kServicesPerDevice; ++i) {
    const Service& service = core.devices[device].services[i];
    if (IsOffered(service) && IsSameType(core.types[service.type], type)) {
      return device * kServicesPerDevice + i;
    }
  }
  return kServicesMax;
}

size_t FindSlot(const Core& core, const Address& address) {
  for (size_t i = 0; i < core.addressSlots; ++i) {
    if (AreAddressesEqual(core.addresses[i].address, address)) return i;
  }
  return kAddressSlots;
}

size_t FindFreeSlot(Core& core) {
  size_t leaving = kAddressSlots;
  for (size_t i = 0; i < core.addressSlots; ++i) {
    if (core.addresses[i].presence == Presence::kFree) return i;
    if (core.addresses[i].presence == Presence::kLeaving) leaving = i;
  }
  return core.addressSlots < kAddressSlots ? core.addressSlots++ : leaving;
}

// Sends the next goodbye of what leaves. False when all were sent and taken: it is gone.
template <typename T>
bool StayForGoodbye(Core& core, T& leaving, const RecordSet& records, int64_t now) {
  if (leaving.goodbyesLeft == 0) return false;
  SendGoodbyes(core, records);
  --leaving.goodbyesLeft;
  leaving.due = leaving.goodbyesLeft == 0 ? now : now + kGoodbyeInterval;
  return true;
}

template <typename T>
bool IsDue(const T& leaving, int64_t now) {
  return leaving.presence == Presence::kLeaving && leaving.due <= now;
}

}  // namespace

bool IsServiceOffered(const Core& core, std::string_view instance, std::string_view type) {
  ServiceType parsed;
  return ParseType(type, parsed) &&
         FindOffered(core, FindDevice(core, instance), parsed) != kServicesMax;
}

bool InsertService(Core& core, std::string_view instance, std::string_view type,
                   std::string_view txt, uint16_t port, int64_t now) {
  ServiceType parsed;
  uint8_t text[kTxtMax];
  const size_t textLength = MakeTxt(txt, text, sizeof(text));
  if (!ParseType(type, parsed) || instance.empty() || instance.size() > kInstanceTextMax ||
      memchr(instance.data(), 0, instance.size()) != nullptr || textLength == 0) {
    return false;
  }
  const size_t known = FindDevice(core, instance);
  if (FindOffered(core, known, parsed) != kServicesMax) return false;
  const size_t device = known != kDevicesMax ? known : FindPlace(core);
  if (device == kDevicesMax) return false;
  const size_t typeIndex = EnterType(core, parsed);
  if (typeIndex == kServiceTypesMax) return false;
  if (known == kDevicesMax) SettleIn(core, device, instance);
  const size_t place = FindServicePlace(core, core.devices[device], parsed);
  if (place == kServicesPerDevice) return false;

  if (!IsAnyOffered(core.devices[device])) NameDevice(core, device, known != kDevicesMax);
  Service& service = core.devices[device].services[place];
  // Over a reserved name, what others know of it is still to be withdrawn.
  const bool isPublished = service.presence == Presence::kHere && service.isPublished;
  ResetService(core, service);
  service.presence = Presence::kHere;
  service.isPublished = service.isListed = isPublished;
  service.type = static_cast<uint8_t>(typeIndex);
  service.port = port;
  AddText(core, service.txt, text, textLength);
  ReserveFlagship(core, core.devices[device]);
  if (core.families != 0) BeginDeviceClaim(core, 1 + device, now);
  return true;
}

bool WithdrawService(Core& core, std::string_view instance, std::string_view type, int64_t now) {
  ServiceType parsed;
  if (!ParseType(type, parsed)) return false;
  const size_t device = FindDevice(core, instance);
  const size_t index = FindOffered(core, device, parsed);
  if (index == kServicesMax) return false;
  LeaveService(core, index, now);
  if (!IsAnyOffered(core.devices[device])) LeaveDevice(core, device, now);
  return true;
}

bool InsertAddress(Core& core, const Address& address) {
  size_t slot = FindSlot(core, address);
  if (slot == kAddressSlots) {
    slot = FindFreeSlot(core);
    if (slot == kAddressSlots) return false;
    core.addresses[slot].address = address;
  } else if (core.addresses[slot].presence == Presence::kHere) {
    return false;
  }
  core.addresses[slot].presence = Presence::kHere;
  return true;
}

bool WithdrawAddress(Core& core, const Address& address, int64_t now) {
  const size_t index = FindSlot(core, address);
  if (index == kAddressSlots || core.addresses[index].presence != Presence::kHere) return false;
  AddressSlot& slot = core.addresses[index];
  if (core.claims[kHostClaim].heldOn != 0 && core.families != 0) {
    BeginLeaving(slot, now);
  } else {
    slot.presence = Presence::kFree;
  }
  return true;
}

void WithdrawAll(Core& core, int64_t now) {
  for (size_t i = 0; i < kDevicesMax; ++i) {
    if (IsAnyOffered(core.devices[i])) LeaveDevice(core, i, now);
  }
  for (const AddressSlot& slot : core.addresses) {
    if (slot.presence == Presence::kHere) WithdrawAddress(core, slot.address, now);
  }
}

void DropLeaving(Core& core) {
  for (size_t i = 0; i < kServicesMax; ++i) {
    if (ServiceAt(core, i).presence == Presence::kLeaving) FreeService(core, i, 0);
  }
  for (AddressSlot& slot : core.addresses) {
    if (slot.presence == Presence::kLeaving) slot.presence = Presence::kFree;
  }
}

bool AdvanceLeaving(Core& core, int64_t now) {
  bool hasAdvanced = false;
  for (size_t i = 0; i < kServicesMax; ++i) {
    Service& service = ServiceAt(core, i);
    if (!IsDue(service, now)) continue;
    hasAdvanced = true;
    if (!StayForGoodbye(core, service, GoodbyesOfService(core, i), now)) {
      FreeService(core, i, now);
    }
  }
  for (size_t i = 0; i < core.addressSlots; ++i) {
    AddressSlot& slot = core.addresses[i];
    if (!IsDue(slot, now)) continue;
    hasAdvanced = true;
    if (!StayForGoodbye(core, slot, GoodbyesOfAddress(core, i), now)) {
      slot.presence = Presence::kFree;
    }
  }
  return hasAdvanced;
}

int64_t NextLeavingTurn(const Core& core) {
  int64_t next = kNever;
  for (size_t i = 0; i < kServicesMax; ++i) {
    const Service& service = ServiceAt(core, i);
    if (service.presence == Presence::kLeaving) next = Earlier(next, service.due);
  }
  for (const AddressSlot& slot : core.addresses) {
    if (slot.presence == Presence::kLeaving) next = Earlier(next, slot.due);
  }
  return next;
}
