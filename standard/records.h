// The host's own names and records. Each has a number; what it reads like on the wire is said here
// and nowhere else, and made afresh from the state each time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "standard/state.h"
#include "standard/wire.h"

/// Seconds that a record with a host name in it, and any other one, may be kept (RFC 6762, section
/// 10).
constexpr uint32_t kTtlHost = 120;
constexpr uint32_t kTtlOther = 4500;

/// The one service type with a subtype, under which system print dialogues look for it.
constexpr std::string_view kSubtypedLabel = "_ipp";
constexpr std::string_view kSubtypeLabel = "_universal";

/// The flagship type of printers: a device that prints by other means claims its name there too
/// (RFC 6763, section 8).
constexpr std::string_view kFlagshipLabel = "_printer";

/// What a record is of.
enum class RecordKind : uint8_t {
  kAddress,
  kReverse,
  kReverseNsec,
  kHostNsec,
  kTypeList,
  kPointer,
  kSubtypePointer,
  kServer,
  kText,
  kServiceNsec,
};

/// What a record's number stands for. The index is that of the address slot, of the type, or of the
/// service among those of all devices.
struct RecordKey {
  RecordKind kind;
  size_t index;
};
RecordKey KeyOf(RecordId id);

/// The number of a service's record; `kind` is one of a service's.
RecordId ServiceRecord(size_t service, RecordKind kind);

/// A service, and its device, by the index among those of all devices.
const Service& ServiceAt(const Core& core, size_t service);
Service& ServiceAt(Core& core, size_t service);
const Device& DeviceOf(const Core& core, size_t service);

/// A text of a service or device.
std::string_view TextAt(const Core& core, const TextPlace& place);

/// The claim that a service's names belong to.
const Claim& ClaimOfService(const Core& core, size_t service);

/// The claim that holds a name, if it is one that is claimed; else kClaimsMax. Reverse names are
/// unique without: the address is, which ARP and duplicate address detection see to, and no other
/// name could be taken instead.
size_t ClaimOfName(NameId name);

/// Writes a name out. False when nothing bears it at present.
bool DescribeName(const Core& core, NameId id, Name& name);

/// The own name that equals `name`; kNamesMax when there is none.
NameId FindName(const Core& core, const Name& name);

/// The name that a record belongs to.
NameId NameOfRecord(const Core& core, RecordId id);

/// A record's type and TTL, and whether it is unique: its set is this host's alone, so that it
/// bears the cache-flush bit (RFC 6762, section 10.2). Meaningful for records that are there.
uint16_t TypeOfRecord(const Core& core, RecordId id);
uint32_t TtlOfRecord(const Core& core, RecordId id);
bool IsUniqueRecord(RecordId id);
bool IsNsecRecord(RecordId id);

/// Writes a record out, with its full TTL and without the cache-flush bit. False when there is no
/// such record: what is leaving still is one.
bool DescribeRecord(const Core& core, RecordId id, Record& record);

/// The records of a name that are there, leaving ones left out, in whatever state their claim is.
RecordSet RecordsOfName(const Core& core, NameId name);

/// The records that are announced when a claim has succeeded: all that it covers.
RecordSet RecordsOfClaim(const Core& core, size_t claim);

/// The names that a claim has to probe for.
NameSet NamesOfClaim(const Core& core, size_t claim);

/// True when the record is there and its names are held on `family`: it may be answered.
bool IsAnswered(const Core& core, RecordId id, Family family);

/// The own record that has this name and type and these data, as received; kRecordsMax when there
/// is none.
RecordId FindRecord(const Core& core, NameId name, const ReceivedRecord& received);

/// The records that a querier who is told these will ask for next (RFC 6763, section 12; RFC 6762,
/// section 6.2).
RecordSet AdditionalsOf(const Core& core, const RecordSet& answers);

/// All of the unique record sets that `records` have a part of: the cache-flush bit says that a set
/// is whole.
void CompleteSets(const Core& core, RecordSet& records);

/// The goodbyes of a service or an address that leaves.
RecordSet GoodbyesOfService(const Core& core, size_t service);
RecordSet GoodbyesOfAddress(const Core& core, size_t slot);
