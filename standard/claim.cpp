// Claiming names.
#include "standard/claim.h"

#include <cstring>

#include "standard/clock.h"
#include "standard/label.h"
#include "standard/outbox.h"
#include "standard/random.h"
#include "standard/records.h"

namespace {

bool IsDevice(size_t claim) { return claim != kHostClaim; }

bool IsHeld(const Core& core, size_t claim) { return core.claims[claim].heldOn != 0; }

bool HasName(const Claim& claim) {
  return claim.step == ClaimStep::kAnnouncing || claim.step == ClaimStep::kSettled;
}

// From the beginning of the random delay until the name is held.
bool IsUnderWay(const Claim& claim) {
  return claim.step == ClaimStep::kWaiting || claim.step == ClaimStep::kDeferring ||
         claim.step == ClaimStep::kProbing;
}

void GoTo(Claim& claim, ClaimStep step, int64_t due) {
  claim.step = step;
  claim.due = due;
}

// What begins at one time begins together, so that it shares packets.
int64_t StartTime(Core& core, int64_t now) {
  for (const Claim& claim : core.claims) {
    if (claim.step == ClaimStep::kWaiting) return claim.due;
  }
  return now + RandomBetween(core, 0, kProbeDelayMax);
}

// A device may begin once the host has its name, or together with it.
bool MayBegin(const Core& core, size_t claim) {
  return !IsDevice(claim) || IsHeld(core, kHostClaim) ||
         core.claims[kHostClaim].step == ClaimStep::kWaiting;
}

void BeginAttempt(Core& core, size_t index, int64_t now) {
  Claim& claim = core.claims[index];
  claim.probesSent = 0;
  if (!MayBegin(core, index)) {
    GoTo(claim, ClaimStep::kHeldBack, kNever);
  } else if (claim.isSlow) {
    GoTo(claim, ClaimStep::kResting, now + kRestInterval);
  } else {
    GoTo(claim, ClaimStep::kWaiting, StartTime(core, now));
  }
}

bool HasServices(const Core& core, size_t claim) {
  for (const Service& service : core.devices[claim - 1].services) {
    if (service.presence == Presence::kHere) return true;
  }
  return false;
}

// The host's name is open again: devices that are on the way to theirs wait for it.
void HoldDevicesBack(Core& core) {
  for (size_t i = kHostClaim + 1; i < kClaimsMax; ++i) {
    Claim& claim = core.claims[i];
    if (claim.heldOn != 0 || claim.step == ClaimStep::kNone || claim.step == ClaimStep::kRenaming) {
      continue;
    }
    GoTo(claim, ClaimStep::kHeldBack, kNever);
  }
}

// Another host name changes the data of every SRV record.
void LoseDevices(Core& core) {
  for (size_t i = kHostClaim + 1; i < kClaimsMax; ++i) core.claims[i].heldOn = 0;
  HoldDevicesBack(core);
}

void ReleaseDevices(Core& core, int64_t now) {
  for (size_t i = kHostClaim + 1; i < kClaimsMax; ++i) {
    if (core.claims[i].step == ClaimStep::kHeldBack) BeginAttempt(core, i, now);
  }
}

void NoteConflict(Core& core, Claim& claim, int64_t now) {
  core.conflictAt[core.nextConflict] = ToPast(now);
  core.nextConflict = static_cast<uint8_t>((core.nextConflict + 1) % kConflictsMax);
  if (AgeOf(core.conflictAt[core.nextConflict], now) <= kConflictPeriod) claim.isSlow = true;
}

bool IsOtherDeviceCalled(const Core& core, size_t device, const Label& label) {
  for (size_t i = 0; i < kServicesMax; ++i) {
    if (i / kServicesPerDevice != device && ServiceAt(core, i).presence != Presence::kFree &&
        AreLabelsEqual(TextOf(DeviceOf(core, i).label), TextOf(label))) {
      return true;
    }
  }
  return false;
}

void MakeDeviceLabel(Core& core, size_t index) {
  Device& device = core.devices[index];
  const Suffix suffix = InstanceSuffix(core.claims[1 + index].number);
  device.label = MakeLabel(TextAt(core, device.instance), suffix.text);
}

void RenameDevice(Core& core, size_t index) {
  Claim& claim = core.claims[1 + index];
  do {
    claim.number = claim.number == 0 ? 2 : claim.number + 1;
    MakeDeviceLabel(core, index);
  } while (IsOtherDeviceCalled(core, index, core.devices[index].label));
}

void RenameHost(Core& core) {
  ++core.claims[kHostClaim].number;
  const Suffix suffix = HostSuffix(core.claims[kHostClaim].number);
  core.hostLabel = MakeLabel(TextOf(core.hostBase), suffix.text);
}

void Rename(Core& core, size_t claim) {
  if (IsDevice(claim)) {
    RenameDevice(core, claim - 1);
  } else {
    RenameHost(core);
  }
}

// RFC 6762, section 8.4: shared records that go get their goodbye before the name changes. Unique
// ones are the other host's by now.
void LeaveDeviceName(Core& core, size_t claim) {
  RecordSet pointers = {};
  for (size_t i = 0; i < kServicesPerDevice; ++i) {
    const size_t index = (claim - 1) * kServicesPerDevice + i;
    Service& service = ServiceAt(core, index);
    if (service.presence != Presence::kHere || !service.isPublished) continue;
    pointers.Add(ServiceRecord(index, RecordKind::kPointer));
    pointers.Add(ServiceRecord(index, RecordKind::kSubtypePointer));
    service.isPublished = false;
  }
  SendGoodbyes(core, pointers);
}

void GiveNameUp(Core& core, size_t claim, int64_t now) {
  if (IsDevice(claim)) {
    LeaveDeviceName(core, claim);
  } else {
    LoseDevices(core);
  }
  GoTo(core.claims[claim], ClaimStep::kRenaming, now);
}

void PublishServices(Core& core, size_t claim) {
  for (Service& service : core.devices[claim - 1].services) {
    if (service.presence == Presence::kHere) service.isPublished = service.isListed = true;
  }
}

void Succeed(Core& core, size_t index, int64_t now) {
  Claim& claim = core.claims[index];
  claim.heldOn = core.families;
  claim.isSlow = false;
  claim.announcementsLeft = kAnnouncements;
  GoTo(claim, ClaimStep::kAnnouncing, now);
  if (IsDevice(index)) {
    PublishServices(core, index);
  } else {
    core.hadHostName = true;
    ReleaseDevices(core, now);
  }
}

void SendProbe(Core& core, size_t index, int64_t now) {
  Claim& claim = core.claims[index];
  SendProbes(core, NamesOfClaim(core, index));
  ++claim.probesSent;
  GoTo(claim, ClaimStep::kProbing, now + kProbeInterval);
}

void Announce(Core& core, size_t index, int64_t now) {
  Claim& claim = core.claims[index];
  PastTime& oldest = claim.announcedAt[claim.nextAnnounced];
  const int64_t age = AgeOf(oldest, now);
  if (age < kAnnouncementPeriod) {
    claim.due = now + kAnnouncementPeriod - age;
    return;
  }
  oldest = ToPast(now);
  claim.nextAnnounced = static_cast<uint8_t>((claim.nextAnnounced + 1) % kAnnouncementsPerMinute);
  const RecordSet records = RecordsOfClaim(core, index);
  for (size_t i = 0; i < kFamilies; ++i) {
    MulticastLater(core, static_cast<Family>(i), records, now);
  }
  --claim.announcementsLeft;
  if (claim.announcementsLeft != 0) {
    claim.due = now + kAnnouncementInterval;
  } else {
    GoTo(claim, ClaimStep::kSettled, kNever);
  }
}

void Advance(Core& core, size_t index, int64_t now) {
  Claim& claim = core.claims[index];
  // Whichever step comes next has a turn of its own, or none.
  claim.due = kNever;
  if (claim.step == ClaimStep::kRenaming) {
    Rename(core, index);
    BeginAttempt(core, index, now);
  } else if (claim.step == ClaimStep::kResting) {
    GoTo(claim, ClaimStep::kWaiting, StartTime(core, now));
  } else if (claim.step == ClaimStep::kAnnouncing) {
    Announce(core, index, now);
  } else if (claim.probesSent < kProbes) {
    SendProbe(core, index, now);
  } else {
    Succeed(core, index, now);
  }
}

// The order of proposed records: class, type, then their data as unsigned bytes, where a shorter
// one that agrees comes first.
int CompareProposed(const Record& own, uint16_t otherClass, uint16_t otherType,
                    const uint8_t* otherData, size_t otherLength) {
  const int ownClass = own.classBits & ~kClassTopBit;
  if (ownClass != otherClass) return ownClass < otherClass ? -1 : 1;
  if (own.type != otherType) return own.type < otherType ? -1 : 1;
  const size_t common = own.dataLength < otherLength ? own.dataLength : otherLength;
  const int order = memcmp(own.data, otherData, common);
  if (order != 0 || own.dataLength == otherLength) return order;
  return own.dataLength < otherLength ? -1 : 1;
}

// A record of a list that is compared; its data are its own.
struct Proposed {
  bool isThere;
  Record record;
};

bool IsBefore(const Record& a, const Record& b) {
  return CompareProposed(a, b.classBits & static_cast<uint16_t>(~kClassTopBit), b.type, b.data,
                         b.dataLength) < 0;
}

// Longer data than any of one's own are cut: what is left is as different as all of them.
Record CopyReceived(const ReceivedRecord& received) {
  Record record;
  record.type = received.type;
  record.classBits = received.classBits & static_cast<uint16_t>(~kClassTopBit);
  record.dataLength = received.dataLength < kDataMax ? received.dataLength : kDataMax;
  memcpy(record.data, received.data, record.dataLength);
  return record;
}

void KeepSmaller(Proposed& smallest, const Record& record) {
  if (smallest.isThere && !IsBefore(record, smallest.record)) return;
  smallest.isThere = true;
  smallest.record = record;
}

RecordSet ProposedOfName(const Core& core, NameId name) {
  RecordSet records = RecordsOfName(core, name);
  for (RecordId id = records.Next(0); id < kRecordsMax; id = records.Next(id + 1)) {
    if (IsNsecRecord(id)) records.Remove(id);
  }
  return records;
}

// The own proposed record that is exactly `other`; kRecordsMax when there is none.
RecordId FindProposed(const Core& core, const RecordSet& proposed, const Record& other) {
  for (RecordId id = proposed.Next(0); id < kRecordsMax; id = proposed.Next(id + 1)) {
    Record own;
    if (DescribeRecord(core, id, own) &&
        CompareProposed(own, other.classBits, other.type, other.data, other.dataLength) == 0) {
      return id;
    }
  }
  return kRecordsMax;
}

bool IsAnyBehind(const Core& core, const RecordSet& records, const Record& other) {
  for (RecordId id = records.Next(0); id < kRecordsMax; id = records.Next(id + 1)) {
    Record own;
    if (DescribeRecord(core, id, own) && IsBefore(other, own)) return true;
  }
  return false;
}

Proposed SmallestOf(const Core& core, const RecordSet& records) {
  Proposed smallest;
  smallest.isThere = false;
  for (RecordId id = records.Next(0); id < kRecordsMax; id = records.Next(id + 1)) {
    Record own;
    if (DescribeRecord(core, id, own)) KeepSmaller(smallest, own);
  }
  return smallest;
}

// The sorted lists first differ at the smallest record that only one side has. There the other side
// has a later record, and with it the later list, or has come to its end.
bool LosesAgainst(const Core& core, NameId name, const uint8_t* message, size_t length) {
  const RecordSet proposed = ProposedOfName(core, name);
  RecordSet common = {};
  Name own;
  if (!DescribeName(core, name, own)) return false;
  Proposed theirs;
  theirs.isThere = false;
  WireReader reader = ReadMessage(message, length);
  ReceivedRecord received;
  while (ReadRecord(reader, received)) {
    if (received.section != Section::kAuthority || !AreNamesEqual(received.name, own)) continue;
    const Record record = CopyReceived(received);
    const RecordId id = FindProposed(core, proposed, record);
    if (id != kRecordsMax) {
      common.Add(id);
    } else {
      KeepSmaller(theirs, record);
    }
  }
  RecordSet only = proposed;
  only.RemoveAll(common);
  const Proposed ours = SmallestOf(core, only);
  if (ours.isThere && theirs.isThere) return IsBefore(ours.record, theirs.record);
  if (ours.isThere) return IsAnyBehind(core, common, ours.record);
  return theirs.isThere && !IsAnyBehind(core, common, theirs.record);
}

// Of several names each host may lose another one. The random delay, with which all probing begins,
// keeps them from giving way to each other again and again.
void Defer(Core& core, size_t index, int64_t now) {
  const int64_t delay = RandomBetween(core, 0, kProbeDelayMax);
  core.claims[index].probesSent = 0;
  GoTo(core.claims[index], ClaimStep::kDeferring, now + kDeferInterval + delay);
  if (!IsDevice(index)) HoldDevicesBack(core);
}

}  // namespace

void InitClaim(Claim& claim) {
  claim = {};
  claim.due = kNever;
}

void BeginAllClaims(Core& core, int64_t now) {
  for (Claim& claim : core.claims) claim.heldOn = 0;
  for (size_t i = 0; i < kClaimsMax; ++i) {
    if (IsDevice(i) && !HasServices(core, i)) continue;
    BeginAttempt(core, i, now);
  }
}

void VerifyAllClaims(Core& core, int64_t now) {
  for (size_t i = 0; i < kClaimsMax; ++i) {
    const ClaimStep step = core.claims[i].step;
    if (step == ClaimStep::kWaiting || step == ClaimStep::kProbing || HasName(core.claims[i])) {
      BeginAttempt(core, i, now);
    }
  }
}

void VerifyClaim(Core& core, size_t claim, int64_t now) {
  if (HasName(core.claims[claim])) BeginAttempt(core, claim, now);
}

void BeginDeviceClaim(Core& core, size_t claim, int64_t now) {
  const Claim& own = core.claims[claim];
  // What has not probed yet takes the new service along.
  if (own.step == ClaimStep::kNone || own.step == ClaimStep::kProbing || HasName(own)) {
    BeginAttempt(core, claim, now);
  }
}

void AnnounceAgain(Core& core, size_t claim, int64_t now) {
  if (!HasName(core.claims[claim])) return;
  core.claims[claim].announcementsLeft = kAnnouncements;
  GoTo(core.claims[claim], ClaimStep::kAnnouncing, now);
}

void EndAllClaims(Core& core) {
  for (size_t i = 0; i < kClaimsMax; ++i) {
    Claim& claim = core.claims[i];
    if (claim.step == ClaimStep::kRenaming) Rename(core, i);
    claim.heldOn = 0;
    GoTo(claim, ClaimStep::kNone, kNever);
  }
}

void StopClaims(Core& core) {
  for (Claim& claim : core.claims) GoTo(claim, ClaimStep::kNone, kNever);
}

void HandleConflict(Core& core, size_t index, int64_t now) {
  Claim& claim = core.claims[index];
  if (claim.heldOn == 0 && !IsUnderWay(claim)) return;
  if (claim.heldOn != 0) {
    // RFC 6762, section 9: it is verified first; whoever answers the probes keeps the name.
    claim.heldOn = 0;
    NoteConflict(core, claim, now);
    BeginAttempt(core, index, now);
    if (!IsDevice(index)) HoldDevicesBack(core);
    return;
  }
  NoteConflict(core, claim, now);
  GiveNameUp(core, index, now);
}

bool IsProbed(const Core& core, NameId name, Family family) {
  const Claim& claim = core.claims[ClaimOfName(name)];
  const bool isPublished = name == kHostName || ServiceAt(core, name - kServiceNames).isPublished;
  if (isPublished && (claim.heldOn & 1U << static_cast<unsigned>(family)) != 0) return false;
  return IsUnderWay(claim);
}

void HandleRivalProbe(Core& core, NameId name, const uint8_t* message, size_t length, int64_t now) {
  const size_t claim = ClaimOfName(name);
  if (core.claims[claim].step == ClaimStep::kDeferring) return;
  if (LosesAgainst(core, name, message, length)) Defer(core, claim, now);
}

void NameDevice(Core& core, size_t device, bool isKnown) {
  if (!isKnown) core.claims[1 + device].number = 0;
  MakeDeviceLabel(core, device);
  if (IsOtherDeviceCalled(core, device, core.devices[device].label)) RenameDevice(core, device);
}

bool AdvanceClaims(Core& core, int64_t now) {
  bool hasAdvanced = false;
  for (size_t i = 0; i < kClaimsMax; ++i) {
    if (core.claims[i].due > now) continue;
    Advance(core, i, now);
    hasAdvanced = true;
  }
  return hasAdvanced;
}

int64_t NextClaimTurn(const Core& core) {
  int64_t next = kNever;
  for (const Claim& claim : core.claims) next = Earlier(next, claim.due);
  return next;
}
