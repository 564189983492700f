// What a core knows. Its modules read and write these fields; nobody else does.
#pragma once

#include <cstddef>
#include <cstdint>

#include "standard/address.h"
#include "standard/bit_set.h"
#include "standard/clock.h"
#include "standard/wire.h"

/// Printers that are published at one time: the ten ports of the printer monitor, and as many again
/// that are leaving with goodbyes still to be said, or whose name is remembered.
constexpr size_t kDevicesMax = 16;

/// Services of one printer: its raw port, IPP and LPD.
constexpr size_t kServicesPerDevice = 3;
constexpr size_t kServicesMax = kDevicesMax * kServicesPerDevice;

/// Service types in use at one time.
constexpr size_t kServiceTypesMax = 4;

/// Addresses that are published, and as many that are leaving.
constexpr size_t kAddressSlots = 2 * kLinkAddressesMax;

/// The longest instance name that AddService takes, in bytes.
constexpr size_t kInstanceTextMax = 128;

/// The longest TXT data: a text of 512 characters, cut into strings.
constexpr size_t kTxtMax = 520;
static_assert(kTxtMax <= kDataMax, "a TXT record can be described");

/// Bytes for all instance names and TXT data.
constexpr size_t kTextsMax = kDevicesMax * kInstanceTextMax + kServicesMax * kTxtMax;
static_assert(kTextsMax <= UINT16_MAX, "the place of a text is counted in 16 bits");

/// The longest first label of a service type: an underscore and fifteen characters (RFC 6335,
/// section 5.1).
constexpr size_t kTypeLabelMax = 16;

/// The random delays and intervals of claiming (RFC 6762, sections 8.1 and 8.3) count these.
constexpr uint8_t kProbes = 3;
constexpr uint8_t kAnnouncements = 2;

/// How often a goodbye is sent: once lost is not yet forgotten.
constexpr uint8_t kGoodbyes = 2;

/// RFC 6762, section 8.4: a host's records change at most ten times a minute; here it is the limit
/// of announcements.
constexpr size_t kAnnouncementsPerMinute = 10;

/// RFC 6762, section 8.1: so many conflicts within ten seconds slow a host down.
constexpr size_t kConflictsMax = 15;

/// Each own record has a number, by which all modules speak of it. One after the other: addresses,
/// their reverse pointers and the NSEC records of those; the host's NSEC; the list of types; the
/// records of the services.
constexpr size_t kRecordsPerService = 5;
constexpr size_t kReverseRecords = kAddressSlots;
constexpr size_t kReverseNsecRecords = kReverseRecords + kAddressSlots;
constexpr size_t kHostNsecRecord = kReverseNsecRecords + kAddressSlots;
constexpr size_t kTypeListRecords = kHostNsecRecord + 1;
constexpr size_t kServiceRecords = kTypeListRecords + kServiceTypesMax;
constexpr size_t kRecordsMax = kServiceRecords + kServicesMax * kRecordsPerService;
using RecordId = size_t;
using RecordSet = BitSet<kRecordsMax>;

/// Each own name has a number too: the host, the reverse names, the list of types, each type and
/// its subtype, each service.
constexpr size_t kHostName = 0;
constexpr size_t kReverseNames = 1;
constexpr size_t kTypeListName = kReverseNames + kAddressSlots;
constexpr size_t kTypeNames = kTypeListName + 1;
constexpr size_t kSubtypeNames = kTypeNames + kServiceTypesMax;
constexpr size_t kServiceNames = kSubtypeNames + kServiceTypesMax;
constexpr size_t kNamesMax = kServiceNames + kServicesMax;
using NameId = size_t;
using NameSet = BitSet<kNamesMax>;

/// Names are claimed by the host and by each device: claim 0, and 1 more than the device's index.
constexpr size_t kHostClaim = 0;
constexpr size_t kClaimsMax = 1 + kDevicesMax;

/// Where a claim stands.
enum class ClaimStep : uint8_t {
  kNone,        ///< there is nothing to claim, or no link to claim it on
  kHeldBack,    ///< waits for the host's name, which is part of its data
  kRenaming,    ///< takes another name as soon as the goodbyes to the former one are out
  kResting,     ///< had too many conflicts: the pause before the next attempt
  kWaiting,     ///< the random delay before the first probe
  kDeferring,   ///< lost against another's probe: the wait before it probes again
  kProbing,     ///< has sent a probe
  kAnnouncing,  ///< has the name; announcements are still to come
  kSettled,     ///< has the name and has said so
};

/// The claim to the host's name or to the names of a device.
struct Claim {
  ClaimStep step;
  int64_t due;  ///< when the step goes on
  uint8_t probesSent;
  uint8_t announcementsLeft;
  uint8_t heldOn;   ///< bit for each family on which the name is held: its records are answered
  bool isSlow;      ///< each attempt begins with a pause until one succeeds
  uint32_t number;  ///< in the name's suffix; 0: none
  PastTime announcedAt[kAnnouncementsPerMinute];  ///< the last ones, in a ring
  uint8_t nextAnnounced;                          ///< the oldest of the ring
};

/// Whether a service or an address is there.
enum class Presence : uint8_t {
  kFree,
  kHere,
  kLeaving,  ///< is gone, and goodbyes are left to say
};

/// Texts of services and devices, one behind the other: memory is touched only for as much as there
/// is.
struct Texts {
  uint16_t length;
  uint8_t bytes[kTextsMax];
};

/// Where in Texts a text is; length 0 when there is none.
struct TextPlace {
  uint16_t offset;
  uint16_t length;
};

struct ServiceType {
  Label label;  ///< like "_ipp"; empty: not in use
  bool isUdp;
};

struct Service {
  int64_t due;           ///< of the next goodbye, when it leaves
  uint8_t goodbyesLeft;  ///< when it leaves
  Presence presence;
  bool isReserved;   ///< only claims its name: nobody is pointed to it (RFC 6763, section 8)
  bool isPublished;  ///< was announced under the present name
  bool isListed;     ///< was announced under any: its type is on the list of types
  uint8_t type;      ///< index of a ServiceType
  uint16_t port;
  TextPlace txt;  ///< as on the wire
};

/// All services of one instance name: a printer.
struct Device {
  TextPlace instance;  ///< as it was added; kept when it is gone
  Label label;         ///< as it is called on the link
  Service services[kServicesPerDevice];
};

/// An address of the link that is published.
struct AddressSlot {
  int64_t due;           ///< of the next goodbye, when it leaves
  uint8_t goodbyesLeft;  ///< when it leaves
  Presence presence;
  Address address;
};

/// Records that are to be multicast on a family, and when.
struct WaitingRecords {
  RecordSet records;
  int64_t due;  ///< of the first of them; kNever when there is none
};

/// A reply to one asker: because it goes to that host alone, or because the host is still sending
/// what it knows already. All other replies are in WaitingRecords.
struct Reply {
  bool isUsed;
  bool isOpen;   ///< known answers may still come in (RFC 6762, section 7.2)
  bool isReady;  ///< its time has come: `unicast` is being sent
  int64_t due;
  int64_t openedAt;  ///< when its question came
  Endpoint asker;
  RecordSet multicast;
  RecordSet unicast;
};
constexpr size_t kRepliesMax = 32;

/// A reply to a conventional resolver (RFC 6762, section 6.7), which goes out at once: there is one
/// at a time.
constexpr size_t kLegacyQuestionsMax = 8;
struct LegacyReply {
  bool isUsed;
  bool isRepeated;  ///< RepeatedReply has the reply, the rest is not filled in
  Endpoint asker;
  uint16_t id;
  uint8_t questionCount;
  Question questions[kLegacyQuestionsMax];
  RecordSet records;
};

/// The last conventional query that was answered, and the reply: resolvers ask for the same again
/// and again, and nothing has to be composed as long as nothing has changed. Both without their ID.
constexpr size_t kRepeatedQueryMax = 128;
constexpr size_t kRepeatedReplyMax = 512;
struct RepeatedReply {
  Family family;
  uint16_t queryLength;  ///< 0: there is none
  uint16_t replyLength;  ///< 0: it is not composed yet
  uint8_t query[kRepeatedQueryMax];
  uint8_t reply[kRepeatedReplyMax];
};

/// What was sent to one host within the present second.
struct HostBudget {
  Address address;
  int64_t end;    ///< of that second
  uint16_t sent;  ///< datagrams
};
constexpr size_t kHostBudgets = 32;

/// What is to be sent on a family at once.
struct Outbox {
  RecordSet goodbyes;
  RecordSet answers;
  NameSet probes;
};

/// Datagrams that were multicast of late, to know them again when they come back.
constexpr size_t kSentHashes = 64;

/// The whole state of one responder on one link. Zero-initialise it, then InitCore.
struct Core {
  uint64_t randomState;
  LinkState link;
  uint8_t families;  ///< bit for each family that has an address on a link that is up
  bool isStopping;
  bool hadHostName;

  Label hostBase;  ///< the name that is wanted
  Label hostLabel;
  Claim claims[kClaimsMax];
  uint8_t nextConflict;
  PastTime conflictAt[kConflictsMax];  ///< the last ones, in a ring

  uint8_t addressSlots;  ///< in use, or once used: all before this one
  AddressSlot addresses[kAddressSlots];
  ServiceType types[kServiceTypesMax];
  Device devices[kDevicesMax];

  PastTime multicastAt[kFamilies][kRecordsMax];  ///< when each record was last multicast
  WaitingRecords answers[kFamilies];             ///< no record twice within a second
  WaitingRecords defences[kFamilies];            ///< against probes: no record twice within 250 ms
  Outbox outbox[kFamilies];

  int64_t unicastEnd;  ///< of the second in which `unicastSent` datagrams went to hosts alone
  uint16_t unicastSent;
  uint32_t sentHashes[kSentHashes];
  uint8_t nextSentHash;

  // From here on filled from the front: what was never used takes no memory.
  Texts texts;
  HostBudget budgets[kHostBudgets];
  RepeatedReply repeated;
  LegacyReply legacy;
  Reply replies[kRepliesMax];
};
