// Claiming names (RFC 6762, sections 8 and 9): probing, announcing, conflicts and other names. The
// host has a claim and so has each device; a device's waits for the host's, whose name is in its
// data.
#pragma once

#include <cstddef>
#include <cstdint>

#include "standard/state.h"

/// RFC 6762, section 8.1, in milliseconds: the random delay before the first probe, the interval
/// between probes and behind the last.
constexpr int64_t kProbeDelayMax = 250;
constexpr int64_t kProbeInterval = 250;

/// Section 8.1: after 15 conflicts within ten seconds, five seconds between attempts.
constexpr int64_t kConflictPeriod = 10000;
constexpr int64_t kRestInterval = 5000;

/// Section 8.2: what a host that lost against another's probe waits, before the random delay.
constexpr int64_t kDeferInterval = 1000;

/// Section 8.3: between two announcements.
constexpr int64_t kAnnouncementInterval = 1000;

/// The period of kAnnouncementsPerMinute.
constexpr int64_t kAnnouncementPeriod = 60000;

/// There is nothing to claim, nor ever was.
void InitClaim(Claim& claim);

/// Begins all claims from the beginning: nothing is held on this link yet.
void BeginAllClaims(Core& core, int64_t now);

/// Probes for everything again while what is held stays so: a family came to the link.
void VerifyAllClaims(Core& core, int64_t now);

/// The same for one claim; one that is under way goes on as it is.
void VerifyClaim(Core& core, size_t claim, int64_t now);

/// Begins the claim to a device's names, or begins it again because a service was added to it.
void BeginDeviceClaim(Core& core, size_t claim, int64_t now);

/// Announces again what a claim holds, because its data changed (RFC 6762, section 8.4).
void AnnounceAgain(Core& core, size_t claim, int64_t now);

/// Gives all claims up: there is no link.
void EndAllClaims(Core& core);

/// Claims nothing any more; what is held stays so for its goodbyes.
void StopClaims(Core& core);

/// Another host has a record of the claim's name that is not this host's: what is held is probed
/// for again, what is probed for is given up. Nothing happens where neither is so.
void HandleConflict(Core& core, size_t claim, int64_t now);

/// True while a name that is claimed is probed for on `family` and not yet held there, so that any
/// record of another is a conflict.
bool IsProbed(const Core& core, NameId name, Family family);

/// Takes another's probe for a name that is being claimed: the message is a well-formed query with
/// records of that name in its authority section. The claim gives way if it loses.
void HandleRivalProbe(Core& core, NameId name, const uint8_t* message, size_t length, int64_t now);

/// Writes the label of a device that has come: its instance name, with a number if another device
/// of this host is called so. One that is known keeps the number that it had.
void NameDevice(Core& core, size_t device, bool isKnown);

/// Does what is due. True when it did anything: there may then be something to send.
bool AdvanceClaims(Core& core, int64_t now);

/// When the next of it is due; kNever when nothing is.
int64_t NextClaimTurn(const Core& core);
