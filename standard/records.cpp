// The host's own names and records.
#include "standard/records.h"

#include <cstring>
#include <string_view>

namespace {

constexpr std::string_view kLocal = "local";
constexpr std::string_view kTcp = "_tcp";
constexpr std::string_view kUdp = "_udp";
constexpr size_t kLabelsMax = 5;

// The order of a service's records.
constexpr RecordKind kServiceKinds[kRecordsPerService] = {
    RecordKind::kPointer, RecordKind::kSubtypePointer, RecordKind::kServer, RecordKind::kText,
    RecordKind::kServiceNsec};

// The labels of a name, but for reverse names.
struct Labels {
  std::string_view labels[kLabelsMax];
  size_t count;
};

bool IsReverseName(NameId id) { return id >= kReverseNames && id < kTypeListName; }

std::string_view Protocol(const ServiceType& type) { return type.isUdp ? kUdp : kTcp; }

bool HasSubtype(const ServiceType& type) {
  return !type.isUdp && AreLabelsEqual(TextOf(type.label), kSubtypedLabel);
}

bool IsHere(const Service& service) { return service.presence == Presence::kHere; }

// Somebody is pointed to the service.
bool IsOffered(const Service& service) { return IsHere(service) && !service.isReserved; }

// The labels of a name; none when nothing bears it.
Labels LabelsOf(const Core& core, NameId id) {
  if (id == kHostName) return {{TextOf(core.hostLabel), kLocal}, 2};
  if (id == kTypeListName) return {{"_services", "_dns-sd", kUdp, kLocal}, 4};
  if (id < kSubtypeNames) {
    const ServiceType& type = core.types[id - kTypeNames];
    if (type.label.length == 0) return {{}, 0};
    return {{TextOf(type.label), Protocol(type), kLocal}, 3};
  }
  if (id < kServiceNames) {
    const ServiceType& type = core.types[id - kSubtypeNames];
    if (!HasSubtype(type)) return {{}, 0};
    return {{kSubtypeLabel, "_sub", TextOf(type.label), Protocol(type), kLocal}, 5};
  }
  const Service& service = ServiceAt(core, id - kServiceNames);
  if (service.presence == Presence::kFree) return {{}, 0};
  const ServiceType& type = core.types[service.type];
  const Label& label = DeviceOf(core, id - kServiceNames).label;
  return {{TextOf(label), TextOf(type.label), Protocol(type), kLocal}, 4};
}

// The labels of any name; none when it has more than own names have.
Labels Split(const Name& name) {
  Labels labels = {};
  size_t offset = 0;
  while (name.bytes[offset] != 0) {
    if (labels.count == kLabelsMax) return {{}, 0};
    labels.labels[labels.count++] = NextLabel(name, offset);
  }
  return labels;
}

bool AreAllEqual(const Labels& a, const Labels& b) {
  if (a.count != b.count) return false;
  for (size_t i = 0; i < a.count; ++i) {
    if (!AreLabelsEqual(a.labels[i], b.labels[i])) return false;
  }
  return true;
}

// The first name from `first` to before `end` with these labels; kNamesMax when there is none.
NameId FindAmong(const Core& core, NameId first, NameId end, const Labels& labels) {
  for (NameId id = first; id < end; ++id) {
    if (AreAllEqual(labels, LabelsOf(core, id))) return id;
  }
  return kNamesMax;
}

// The names of printers, of which there are many: most are told apart by their first label.
NameId FindServiceName(const Core& core, const Labels& labels) {
  for (size_t i = 0; i < kDevicesMax; ++i) {
    if (!AreLabelsEqual(labels.labels[0], TextOf(core.devices[i].label))) continue;
    const NameId first = kServiceNames + i * kServicesPerDevice;
    const NameId found = FindAmong(core, first, first + kServicesPerDevice, labels);
    if (found != kNamesMax) return found;
  }
  return kNamesMax;
}

void AppendDecimalLabel(Name& name, uint8_t number) {
  char digits[3];
  size_t count = 0;
  if (number >= 100) digits[count++] = static_cast<char>('0' + number / 100);
  if (number >= 10) digits[count++] = static_cast<char>('0' + number / 10 % 10);
  digits[count++] = static_cast<char>('0' + number % 10);
  AppendLabel(name, {digits, count});
}

void AppendNibbleLabel(Name& name, unsigned nibble) {
  const char digit = "0123456789abcdef"[nibble & 0xF];
  AppendLabel(name, {&digit, 1});
}

// RFC 1035, section 3.5; RFC 3596, section 2.5.
void DescribeReverseName(const Address& address, Name& name) {
  name = RootName();
  if (address.family == Family::kIpv4) {
    for (size_t i = 4; i-- > 0;) AppendDecimalLabel(name, address.bytes[i]);
    AppendLabel(name, "in-addr");
  } else {
    for (size_t i = sizeof(address.bytes); i-- > 0;) {
      AppendNibbleLabel(name, address.bytes[i]);
      AppendNibbleLabel(name, address.bytes[i] >> 4U);
    }
    AppendLabel(name, "ip6");
  }
  AppendLabel(name, "arpa");
}

bool EndsInArpa(const Name& name) {
  constexpr size_t kEnd = sizeof("\4arpa");
  return name.length >= kEnd &&
         AreLabelsEqual({reinterpret_cast<const char*>(name.bytes) + name.length - kEnd, kEnd - 1},
                        "\4arpa");
}

NameId FindReverseName(const Core& core, const Name& name) {
  for (size_t i = 0; i < core.addressSlots; ++i) {
    Name own;
    if (DescribeName(core, kReverseNames + i, own) && AreNamesEqual(own, name)) {
      return kReverseNames + i;
    }
  }
  return kNamesMax;
}

uint16_t TypeOfAddress(const Core& core, size_t slot) {
  return core.addresses[slot].address.family == Family::kIpv4 ? kTypeA : kTypeAaaa;
}

bool IsAddressHere(const Core& core, size_t slot) {
  return core.addresses[slot].presence == Presence::kHere;
}

bool HasAddressOfType(const Core& core, uint16_t type) {
  for (size_t i = 0; i < core.addressSlots; ++i) {
    if (IsAddressHere(core, i) && TypeOfAddress(core, i) == type) return true;
  }
  return false;
}

// The same while a stop says goodbye to all of them.
bool IsTypeOfHost(const Core& core, uint16_t type) {
  for (size_t i = 0; core.isStopping && i < core.addressSlots; ++i) {
    if (core.addresses[i].presence == Presence::kLeaving && TypeOfAddress(core, i) == type) {
      return true;
    }
  }
  return HasAddressOfType(core, type);
}

// Whether any service is offered under a type.
bool IsTypeOffered(const Core& core, size_t type) {
  for (size_t i = 0; i < kServicesMax; ++i) {
    const Service& service = ServiceAt(core, i);
    if (IsOffered(service) && service.type == type) return true;
  }
  return false;
}

// Whether a type is on the list of types for any service but `except`.
bool IsTypeListed(const Core& core, size_t type, size_t except) {
  for (size_t i = 0; i < kServicesMax; ++i) {
    const Service& service = ServiceAt(core, i);
    if (i != except && IsOffered(service) && service.isListed && service.type == type) return true;
  }
  return false;
}

bool IsTypeAnswered(const Core& core, size_t type, Family family) {
  for (size_t i = 0; i < kServicesMax; ++i) {
    if (ServiceAt(core, i).type == type &&
        IsAnswered(core, ServiceRecord(i, RecordKind::kPointer), family)) {
      return true;
    }
  }
  return false;
}

bool DoesServiceRecordExist(const Core& core, const RecordKey& key) {
  const Service& service = ServiceAt(core, key.index);
  if (service.presence == Presence::kFree) return false;
  if (key.kind == RecordKind::kPointer) return !service.isReserved;
  if (key.kind == RecordKind::kSubtypePointer) {
    return !service.isReserved && HasSubtype(core.types[service.type]);
  }
  return true;
}

bool DoesExist(const Core& core, const RecordKey& key) {
  switch (key.kind) {
    case RecordKind::kAddress:
    case RecordKind::kReverse:
    case RecordKind::kReverseNsec:
      return core.addresses[key.index].presence != Presence::kFree;
    case RecordKind::kHostNsec:
      return true;
    case RecordKind::kTypeList:
      return core.types[key.index].label.length != 0;
    default:
      return DoesServiceRecordExist(core, key);
  }
}

void PutData(Record& record, const void* data, size_t length) {
  if (length > kDataMax - record.dataLength) return;
  memcpy(record.data + record.dataLength, data, length);
  record.dataLength += length;
}

void PutNameData(const Core& core, NameId id, Record& record) {
  Name name;
  if (DescribeName(core, id, name)) PutData(record, name.bytes, name.length);
}

void PutServerData(const Core& core, size_t service, Record& record) {
  const uint16_t port = ServiceAt(core, service).port;
  const uint8_t start[kSrvTargetOffset] = {
      0, 0, 0, 0, static_cast<uint8_t>(port >> 8), static_cast<uint8_t>(port & 0xFF)};
  PutData(record, start, sizeof(start));
  PutNameData(core, kHostName, record);
}

void PutTextData(const Core& core, size_t service, Record& record) {
  const Service& own = ServiceAt(core, service);
  const std::string_view text = TextAt(core, own.txt);
  PutData(record, text.data(), text.size());
}

// A bitmap of the types that a name has (RFC 4034, section 4.1.2).
struct TypeBitmap {
  uint8_t bytes[kTypeSrv / 8 + 1];
  uint8_t length;
};

void AddType(TypeBitmap& bitmap, uint16_t type) {
  bitmap.bytes[type / 8] = static_cast<uint8_t>(bitmap.bytes[type / 8] | 0x80 >> type % 8);
  const uint8_t needed = static_cast<uint8_t>(type / 8 + 1);
  if (needed > bitmap.length) bitmap.length = needed;
}

TypeBitmap TypesOfName(const Core& core, NameId id) {
  TypeBitmap bitmap = {};
  if (id == kHostName) {
    if (IsTypeOfHost(core, kTypeA)) AddType(bitmap, kTypeA);
    if (IsTypeOfHost(core, kTypeAaaa)) AddType(bitmap, kTypeAaaa);
  } else if (IsReverseName(id)) {
    AddType(bitmap, kTypePtr);
  } else {
    AddType(bitmap, kTypeTxt);
    AddType(bitmap, kTypeSrv);
  }
  return bitmap;
}

// RFC 6762, section 6.1: the next name is the own one, the types are all in window 0.
void PutNsecData(const Core& core, NameId id, Record& record) {
  PutNameData(core, id, record);
  const TypeBitmap bitmap = TypesOfName(core, id);
  if (bitmap.length == 0) return;
  const uint8_t window[2] = {0, bitmap.length};
  PutData(record, window, sizeof(window));
  PutData(record, bitmap.bytes, bitmap.length);
}

void PutRecordData(const Core& core, const RecordKey& key, Record& record) {
  switch (key.kind) {
    case RecordKind::kAddress: {
      const Address& address = core.addresses[key.index].address;
      PutData(record, address.bytes, address.family == Family::kIpv4 ? 4 : 16);
      break;
    }
    case RecordKind::kReverse:
      PutNameData(core, kHostName, record);
      break;
    case RecordKind::kTypeList:
      PutNameData(core, kTypeNames + key.index, record);
      break;
    case RecordKind::kPointer:
    case RecordKind::kSubtypePointer:
      PutNameData(core, kServiceNames + key.index, record);
      break;
    case RecordKind::kServer:
      PutServerData(core, key.index, record);
      break;
    case RecordKind::kText:
      PutTextData(core, key.index, record);
      break;
    case RecordKind::kReverseNsec:
      PutNsecData(core, kReverseNames + key.index, record);
      break;
    case RecordKind::kHostNsec:
      PutNsecData(core, kHostName, record);
      break;
    case RecordKind::kServiceNsec:
      PutNsecData(core, kServiceNames + key.index, record);
      break;
  }
}

void AddIfThere(const Core& core, RecordSet& records, RecordId id) {
  if (DoesExist(core, KeyOf(id))) records.Add(id);
}

void AddHostRecords(const Core& core, RecordSet& records) {
  for (size_t i = 0; i < core.addressSlots; ++i) {
    if (IsAddressHere(core, i)) records.Add(i);
  }
  records.Add(kHostNsecRecord);
}

// Addresses, and an NSEC record where those of a family are missing.
void AddHostAdditionals(const Core& core, RecordSet& records) {
  AddHostRecords(core, records);
  if (HasAddressOfType(core, kTypeA) && HasAddressOfType(core, kTypeAaaa)) {
    records.Remove(kHostNsecRecord);
  }
}

void AddUniqueServiceRecords(size_t service, RecordSet& records) {
  records.Add(ServiceRecord(service, RecordKind::kServer));
  records.Add(ServiceRecord(service, RecordKind::kText));
  records.Add(ServiceRecord(service, RecordKind::kServiceNsec));
}

void AddPointers(const Core& core, size_t service, RecordSet& records) {
  AddIfThere(core, records, ServiceRecord(service, RecordKind::kPointer));
  AddIfThere(core, records, ServiceRecord(service, RecordKind::kSubtypePointer));
}

// The pointers of one kind to all services of a type.
void AddPointersOfType(const Core& core, size_t type, RecordKind kind, RecordSet& records) {
  for (size_t i = 0; i < kServicesMax; ++i) {
    const Service& service = ServiceAt(core, i);
    if (IsHere(service) && service.type == type) {
      AddIfThere(core, records, ServiceRecord(i, kind));
    }
  }
}

// Goodbyes go to the types' list with the last service of the type.
void AddTypeListGoodbye(const Core& core, size_t service, RecordSet& records) {
  const Service& own = ServiceAt(core, service);
  if (!own.isReserved && !IsTypeListed(core, own.type, service)) {
    records.Add(kTypeListRecords + own.type);
  }
}

void AddAdditionalsOf(const Core& core, RecordId id, RecordSet& records) {
  const RecordKey key = KeyOf(id);
  switch (key.kind) {
    case RecordKind::kPointer:
    case RecordKind::kSubtypePointer:
      records.Add(ServiceRecord(key.index, RecordKind::kServer));
      records.Add(ServiceRecord(key.index, RecordKind::kText));
      AddHostAdditionals(core, records);
      break;
    case RecordKind::kServer:
    case RecordKind::kAddress:
      AddHostAdditionals(core, records);
      break;
    default:
      break;
  }
}

}  // namespace

RecordKey KeyOf(RecordId id) {
  if (id < kReverseRecords) return {RecordKind::kAddress, id};
  if (id < kReverseNsecRecords) return {RecordKind::kReverse, id - kReverseRecords};
  if (id < kHostNsecRecord) return {RecordKind::kReverseNsec, id - kReverseNsecRecords};
  if (id == kHostNsecRecord) return {RecordKind::kHostNsec, 0};
  if (id < kServiceRecords) return {RecordKind::kTypeList, id - kTypeListRecords};
  const size_t offset = id - kServiceRecords;
  return {kServiceKinds[offset % kRecordsPerService], offset / kRecordsPerService};
}

RecordId ServiceRecord(size_t service, RecordKind kind) {
  const size_t place = static_cast<size_t>(kind) - static_cast<size_t>(RecordKind::kPointer);
  return kServiceRecords + service * kRecordsPerService + place;
}

const Service& ServiceAt(const Core& core, size_t service) {
  return core.devices[service / kServicesPerDevice].services[service % kServicesPerDevice];
}

Service& ServiceAt(Core& core, size_t service) {
  return core.devices[service / kServicesPerDevice].services[service % kServicesPerDevice];
}

std::string_view TextAt(const Core& core, const TextPlace& place) {
  return {reinterpret_cast<const char*>(core.texts.bytes) + place.offset, place.length};
}

const Device& DeviceOf(const Core& core, size_t service) {
  return core.devices[service / kServicesPerDevice];
}

const Claim& ClaimOfService(const Core& core, size_t service) {
  return core.claims[1 + service / kServicesPerDevice];
}

size_t ClaimOfName(NameId name) {
  if (name == kHostName) return kHostClaim;
  if (name < kServiceNames || name >= kNamesMax) return kClaimsMax;
  return 1 + (name - kServiceNames) / kServicesPerDevice;
}

bool DescribeName(const Core& core, NameId id, Name& name) {
  if (IsReverseName(id)) {
    const AddressSlot& slot = core.addresses[id - kReverseNames];
    if (slot.presence == Presence::kFree) return false;
    DescribeReverseName(slot.address, name);
    return true;
  }
  const Labels labels = LabelsOf(core, id);
  name = RootName();
  for (size_t i = 0; i < labels.count; ++i) AppendLabel(name, labels.labels[i]);
  return labels.count != 0;
}

NameId FindName(const Core& core, const Name& name) {
  if (EndsInArpa(name)) return FindReverseName(core, name);
  const Labels labels = Split(name);
  switch (labels.count) {
    case 2:
      return FindAmong(core, kHostName, kHostName + 1, labels);
    case 3:
      return FindAmong(core, kTypeNames, kSubtypeNames, labels);
    case 4: {
      const NameId found = FindAmong(core, kTypeListName, kTypeListName + 1, labels);
      return found != kNamesMax ? found : FindServiceName(core, labels);
    }
    case 5:
      return FindAmong(core, kSubtypeNames, kServiceNames, labels);
    default:
      return kNamesMax;
  }
}

NameId NameOfRecord(const Core& core, RecordId id) {
  const RecordKey key = KeyOf(id);
  switch (key.kind) {
    case RecordKind::kAddress:
    case RecordKind::kHostNsec:
      return kHostName;
    case RecordKind::kReverse:
    case RecordKind::kReverseNsec:
      return kReverseNames + key.index;
    case RecordKind::kTypeList:
      return kTypeListName;
    case RecordKind::kPointer:
      return kTypeNames + ServiceAt(core, key.index).type;
    case RecordKind::kSubtypePointer:
      return kSubtypeNames + ServiceAt(core, key.index).type;
    default:
      return kServiceNames + key.index;
  }
}

uint16_t TypeOfRecord(const Core& core, RecordId id) {
  const RecordKey key = KeyOf(id);
  switch (key.kind) {
    case RecordKind::kAddress:
      return TypeOfAddress(core, key.index);
    case RecordKind::kReverse:
    case RecordKind::kTypeList:
    case RecordKind::kPointer:
    case RecordKind::kSubtypePointer:
      return kTypePtr;
    case RecordKind::kServer:
      return kTypeSrv;
    case RecordKind::kText:
      return kTypeTxt;
    default:
      return kTypeNsec;
  }
}

uint32_t TtlOfRecord(const Core&, RecordId id) {
  switch (KeyOf(id).kind) {
    case RecordKind::kTypeList:
    case RecordKind::kPointer:
    case RecordKind::kSubtypePointer:
    case RecordKind::kText:
      return kTtlOther;
    default:
      return kTtlHost;
  }
}

bool IsUniqueRecord(RecordId id) {
  const RecordKind kind = KeyOf(id).kind;
  return kind != RecordKind::kTypeList && kind != RecordKind::kPointer &&
         kind != RecordKind::kSubtypePointer;
}

bool IsNsecRecord(RecordId id) {
  const RecordKind kind = KeyOf(id).kind;
  return kind == RecordKind::kReverseNsec || kind == RecordKind::kHostNsec ||
         kind == RecordKind::kServiceNsec;
}

bool DescribeRecord(const Core& core, RecordId id, Record& record) {
  const RecordKey key = KeyOf(id);
  if (!DoesExist(core, key) || !DescribeName(core, NameOfRecord(core, id), record.name)) {
    return false;
  }
  record.type = TypeOfRecord(core, id);
  record.classBits = kClassIn;
  record.ttl = TtlOfRecord(core, id);
  record.dataLength = 0;
  PutRecordData(core, key, record);
  return true;
}

RecordSet RecordsOfName(const Core& core, NameId name) {
  RecordSet records = {};
  if (name == kHostName) {
    AddHostRecords(core, records);
  } else if (IsReverseName(name)) {
    const size_t slot = name - kReverseNames;
    if (!IsAddressHere(core, slot)) return records;
    records.Add(kReverseRecords + slot);
    records.Add(kReverseNsecRecords + slot);
  } else if (name == kTypeListName) {
    for (size_t i = 0; i < kServiceTypesMax; ++i) {
      if (IsTypeOffered(core, i)) records.Add(kTypeListRecords + i);
    }
  } else if (name < kSubtypeNames) {
    AddPointersOfType(core, name - kTypeNames, RecordKind::kPointer, records);
  } else if (name < kServiceNames) {
    AddPointersOfType(core, name - kSubtypeNames, RecordKind::kSubtypePointer, records);
  } else if (name < kNamesMax && IsHere(ServiceAt(core, name - kServiceNames))) {
    AddUniqueServiceRecords(name - kServiceNames, records);
  }
  return records;
}

RecordSet RecordsOfClaim(const Core& core, size_t claim) {
  RecordSet records = {};
  if (claim == kHostClaim) {
    AddHostRecords(core, records);
    for (size_t i = 0; i < core.addressSlots; ++i) {
      records.AddAll(RecordsOfName(core, kReverseNames + i));
    }
    return records;
  }
  for (size_t i = 0; i < kServicesPerDevice; ++i) {
    const size_t service = (claim - 1) * kServicesPerDevice + i;
    if (!IsHere(ServiceAt(core, service))) continue;
    AddUniqueServiceRecords(service, records);
    AddPointers(core, service, records);
    if (IsOffered(ServiceAt(core, service))) {
      records.Add(kTypeListRecords + ServiceAt(core, service).type);
    }
  }
  return records;
}

NameSet NamesOfClaim(const Core& core, size_t claim) {
  NameSet names = {};
  if (claim == kHostClaim) {
    names.Add(kHostName);
    return names;
  }
  for (size_t i = 0; i < kServicesPerDevice; ++i) {
    const size_t service = (claim - 1) * kServicesPerDevice + i;
    if (IsHere(ServiceAt(core, service))) names.Add(kServiceNames + service);
  }
  return names;
}

bool IsAnswered(const Core& core, RecordId id, Family family) {
  const unsigned bit = 1U << static_cast<unsigned>(family);
  const RecordKey key = KeyOf(id);
  switch (key.kind) {
    case RecordKind::kAddress:
    case RecordKind::kReverse:
    case RecordKind::kReverseNsec:
      return IsAddressHere(core, key.index) && (core.claims[kHostClaim].heldOn & bit) != 0;
    case RecordKind::kHostNsec:
      return (core.claims[kHostClaim].heldOn & bit) != 0;
    case RecordKind::kTypeList:
      return IsTypeAnswered(core, key.index, family);
    default:
      return IsHere(ServiceAt(core, key.index)) && ServiceAt(core, key.index).isPublished &&
             DoesServiceRecordExist(core, key) &&
             (ClaimOfService(core, key.index).heldOn & bit) != 0;
  }
}

RecordId FindRecord(const Core& core, NameId name, const ReceivedRecord& received) {
  const RecordSet records = RecordsOfName(core, name);
  for (RecordId id = records.Next(0); id < kRecordsMax; id = records.Next(id + 1)) {
    Record own;
    if (TypeOfRecord(core, id) == received.type && DescribeRecord(core, id, own) &&
        AreDataEqual(own, received.data, received.dataLength)) {
      return id;
    }
  }
  return kRecordsMax;
}

RecordSet AdditionalsOf(const Core& core, const RecordSet& answers) {
  RecordSet records = {};
  for (RecordId id = answers.Next(0); id < kRecordsMax; id = answers.Next(id + 1)) {
    AddAdditionalsOf(core, id, records);
  }
  records.RemoveAll(answers);
  return records;
}

void CompleteSets(const Core& core, RecordSet& records) {
  bool has[2] = {};
  for (size_t i = records.Next(0); i < kAddressSlots; i = records.Next(i + 1)) {
    has[TypeOfAddress(core, i) == kTypeA ? 0 : 1] = true;
  }
  for (size_t i = 0; i < core.addressSlots; ++i) {
    if (IsAddressHere(core, i) && has[TypeOfAddress(core, i) == kTypeA ? 0 : 1]) records.Add(i);
  }
}

RecordSet GoodbyesOfService(const Core& core, size_t service) {
  RecordSet records = {};
  if (ServiceAt(core, service).isPublished) AddPointers(core, service, records);
  AddTypeListGoodbye(core, service, records);
  if (ClaimOfService(core, service).heldOn != 0) AddUniqueServiceRecords(service, records);
  return records;
}

RecordSet GoodbyesOfAddress(const Core& core, size_t slot) {
  RecordSet records = {};
  if (!HasAddressOfType(core, TypeOfAddress(core, slot))) records.Add(slot);
  records.Add(kReverseRecords + slot);
  records.Add(kReverseNsecRecords + slot);
  if (core.isStopping) records.Add(kHostNsecRecord);
  return records;
}
