// The protocol's operations, and the order of what is due.
#include "standard/core.h"

#include <cstring>

#include "standard/answer.h"
#include "standard/claim.h"
#include "standard/label.h"
#include "standard/outbox.h"
#include "standard/random.h"
#include "standard/records.h"
#include "standard/response.h"
#include "standard/services.h"

namespace {

uint8_t FamiliesOf(const LinkState& link) {
  unsigned families = 0;
  for (size_t i = 0; link.isUp && i < link.addressCount; ++i) {
    families |= 1U << static_cast<unsigned>(link.addresses[i].address.family);
  }
  return static_cast<uint8_t>(families);
}

bool HasAddress(const LinkState& link, const Address& address) {
  for (size_t i = 0; i < link.addressCount; ++i) {
    if (AreAddressesEqual(link.addresses[i].address, address)) return true;
  }
  return false;
}

// What a change of the link's addresses brought.
struct AddressChange {
  bool hasCome;
  bool hasGone;
};

AddressChange FollowAddresses(Core& core, int64_t now) {
  AddressChange change = {};
  for (const AddressSlot& slot : core.addresses) {
    if (slot.presence == Presence::kHere && !HasAddress(core.link, slot.address)) {
      change.hasGone = WithdrawAddress(core, slot.address, now) || change.hasGone;
    }
  }
  for (size_t i = 0; i < core.link.addressCount; ++i) {
    change.hasCome = InsertAddress(core, core.link.addresses[i].address) || change.hasCome;
  }
  return change;
}

void LoseLink(Core& core) {
  EndAllClaims(core);
  ForgetAnswers(core);
  DropLeaving(core);
}

// RFC 6762, sections 5.5 and 11: what came to this host alone counts only from the link.
bool IsFromLink(const Core& core, const ReceivedDatagram& datagram) {
  const unsigned bit = 1U << static_cast<unsigned>(datagram.source.address.family);
  return (core.families & bit) != 0 &&
         (datagram.isMulticast || IsOnLink(core.link, datagram.source.address));
}

// RFC 6762, sections 18.3 and 18.11.
bool HasKnownMeaning(uint16_t flags) { return (flags & (kOpcodeMask | kResponseCodeMask)) == 0; }

}  // namespace

void InitCore(Core& core, std::string_view hostName, uint64_t randomSeed) {
  SeedRandom(core, randomSeed);
  core.hostBase = MakeLabel(hostName, {});
  core.hostLabel = core.hostBase;
  for (Claim& claim : core.claims) InitClaim(claim);
  ForgetAnswers(core);
}

void HandleLink(Core& core, const LinkState& link, int64_t now) {
  ForgetRepeated(core);
  const uint8_t families = core.families;
  const bool isOther = memcmp(core.link.mac, link.mac, kHardwareAddressSize) != 0;
  core.link = link;
  if (link.addressCount > kLinkAddressesMax) core.link.addressCount = kLinkAddressesMax;
  core.families = FamiliesOf(core.link);
  for (Claim& claim : core.claims) claim.heldOn &= core.families;
  if (core.families == 0) {
    LoseLink(core);
    return;
  }
  if (core.isStopping) return;
  const AddressChange change = FollowAddresses(core, now);
  if (families == 0 || isOther) {
    BeginAllClaims(core, now);
  } else if ((core.families & ~families) != 0) {
    VerifyAllClaims(core, now);
  } else if (change.hasCome) {
    VerifyClaim(core, kHostClaim, now);
  } else if (change.hasGone) {
    AnnounceAgain(core, kHostClaim, now);
  }
}

void HandleDatagram(Core& core, const ReceivedDatagram& datagram, int64_t now) {
  const uint16_t flags = MessageFlags(datagram.bytes, datagram.length);
  if (core.isStopping || !IsFromLink(core, datagram) || !HasKnownMeaning(flags)) return;
  if (HandleRepeatedQuery(core, datagram)) return;
  ForgetRepeated(core);
  const bool isFromSelf = HasAddress(core.link, datagram.source.address);
  if (isFromSelf && WasSentHere(core, datagram.bytes, datagram.length)) return;
  const bool isResponse = (flags & kFlagResponse) != 0;
  if (isResponse && datagram.source.port != kMdnsPort) return;
  if (!IsWellFormed(datagram.bytes, datagram.length)) return;
  if (isResponse) {
    HandleResponse(core, datagram, isFromSelf, now);
  } else {
    HandleQuery(core, datagram, isFromSelf, now);
  }
}

bool AddService(Core& core, std::string_view instance, std::string_view type, std::string_view txt,
                uint16_t port, int64_t now) {
  ForgetRepeated(core);
  return !core.isStopping && InsertService(core, instance, type, txt, port, now);
}

bool RemoveService(Core& core, std::string_view instance, std::string_view type, int64_t now) {
  ForgetRepeated(core);
  return !core.isStopping && WithdrawService(core, instance, type, now);
}

void BeginStop(Core& core, int64_t now) {
  if (core.isStopping) return;
  core.isStopping = true;
  StopClaims(core);
  ForgetAnswers(core);
  WithdrawAll(core, now);
}

bool IsStopped(const Core& core) {
  return core.isStopping && NextLeavingTurn(core) == kNever && IsOutboxEmpty(core);
}

bool TakeDatagram(Core& core, int64_t now, OutgoingDatagram& out) {
  // What is to be sent goes out before anything changes: a name is left only after the goodbyes to
  // it.
  while (!TakeFromOutbox(core, now, out)) {
    if (AdvanceLeaving(core, now) || AdvanceClaims(core, now)) {
      ForgetRepeated(core);
    } else if (!AdvanceOutbox(core, now)) {
      return false;
    }
  }
  return true;
}

void NoteLate(Core& core, int64_t taken, int64_t now) {
  for (auto& family : core.multicastAt) {
    for (PastTime& time : family) {
      if (time == ToPast(taken)) time = ToPast(now);
    }
  }
}

int64_t NextTurn(const Core& core) {
  return Earlier(NextLeavingTurn(core), Earlier(NextClaimTurn(core), NextOutboxTurn(core)));
}

bool HasHostName(const Core& core) { return core.hadHostName; }

const char* HostName(const Core& core) { return core.hostLabel.text; }
