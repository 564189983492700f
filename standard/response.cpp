// What other hosts' responses mean for this one.
#include "standard/response.h"

#include "standard/answer.h"
#include "standard/claim.h"
#include "standard/outbox.h"
#include "standard/random.h"
#include "standard/records.h"

namespace {

// What a response says of own records and names.
struct Findings {
  RecordSet answered;            // others have heard them
  RecordSet expiring;            // others are about to forget them
  bool isContested[kClaimsMax];  // another host uses the names
};

bool IsAddressType(uint16_t type) { return type == kTypeA || type == kTypeAaaa; }

// The types of records that a name's owner alone has. NSEC only speaks of them.
bool IsOwnersType(uint16_t type) {
  return IsAddressType(type) || type == kTypeSrv || type == kTypeTxt;
}

bool IsHeldOn(const Claim& claim, Family family) {
  return (claim.heldOn & 1U << static_cast<unsigned>(family)) != 0;
}

// A record of an own name with data that are not one's own.
bool IsConflict(const Core& core, NameId name, const ReceivedRecord& record, Family family,
                bool isFromSelf) {
  if (record.ttl == 0) return false;
  // Addresses of this host on another link (RFC 6762, section 9).
  if (isFromSelf && name == kHostName && IsAddressType(record.type)) return false;
  return IsProbed(core, name, family) ||
         (IsHeldOn(core.claims[ClaimOfName(name)], family) && IsOwnersType(record.type));
}

void JudgeOwnRecord(const Core& core, RecordId id, uint32_t ttl, Findings& findings) {
  const uint32_t ownTtl = TtlOfRecord(core, id);
  if (ttl >= ownTtl) findings.answered.Add(id);
  if (ttl < ownTtl / 2) findings.expiring.Add(id);
}

void JudgeRecord(const Core& core, const ReceivedRecord& record, Family family, bool isFromSelf,
                 Findings& findings) {
  if ((record.classBits & ~kClassTopBit) != kClassIn) return;
  const NameId name = FindName(core, record.name);
  if (name == kNamesMax) return;
  const RecordId id = FindRecord(core, name, record);
  if (id != kRecordsMax) {
    if (IsAnswered(core, id, family)) JudgeOwnRecord(core, id, record.ttl, findings);
    return;
  }
  const size_t claim = ClaimOfName(name);
  if (claim != kClaimsMax && IsConflict(core, name, record, family, isFromSelf)) {
    findings.isContested[claim] = true;
  }
}

}  // namespace

void HandleResponse(Core& core, const ReceivedDatagram& response, bool isFromSelf, int64_t now) {
  const Family family = response.source.address.family;
  Findings findings = {};
  WireReader reader = ReadMessage(response.bytes, response.length);
  ReceivedRecord record;
  while (ReadRecord(reader, record)) {
    JudgeRecord(core, record, family, isFromSelf, findings);
  }
  // A response to this host alone says nothing of what others heard.
  if (response.isMulticast) {
    SuppressAnswers(core, family, findings.answered);
    const int64_t delay = RandomBetween(core, kSharedDelayMin, kSharedDelayMax);
    MulticastLater(core, family, findings.expiring, now + delay);
  }
  for (size_t i = 0; i < kClaimsMax; ++i) {
    if (findings.isContested[i]) HandleConflict(core, i, now);
  }
}
