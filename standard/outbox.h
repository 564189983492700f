// What is to be sent: records that wait for their time, and the datagrams that are made of them
// when it has come. All rules on how often a record may be sent are here.
#pragma once

#include <cstdint>

#include "standard/clock.h"
#include "standard/datagram.h"
#include "standard/state.h"

/// RFC 6762, section 6: no record is multicast again on a link within a second, or within 250 ms in
/// defence against a probe. In milliseconds; one more, because times are rounded down.
constexpr int64_t kRecordInterval = 1000 + 1;
constexpr int64_t kDefenceInterval = 250 + 1;

/// Section 6.7: a conventional resolver keeps no answer for longer, in seconds.
constexpr uint32_t kTtlLegacyMax = 10;

/// Datagrams that are sent to one host, and to all of them together, within a second: much more
/// than a host asks for that looks for all printers at once, and little enough that nobody can be
/// harmed by what is sent in the answer to questions that were asked in his name.
constexpr uint16_t kUnicastPerHost = 100;
constexpr uint16_t kUnicastInAll = 500;
constexpr int64_t kUnicastPeriod = 1000;

/// Multicasts records on a family at `due`, or when all else that waits there goes out, or when
/// their interval is over.
void MulticastLater(Core& core, Family family, const RecordSet& records, int64_t due);

/// Multicasts records in defence against a probe, at once or as soon as that is allowed.
void DefendLater(Core& core, Family family, const RecordSet& records, int64_t now);

/// Nothing of these has to be multicast for a question any more: another host did.
void SuppressAnswers(Core& core, Family family, const RecordSet& records);

/// Says goodbye to records on all families at once, before anything else is done.
void SendGoodbyes(Core& core, const RecordSet& records);

/// Probes for names on all families at once.
void SendProbes(Core& core, const NameSet& names);

/// A place for a reply to one asker; null when all are taken. The caller fills it.
Reply* NewReply(Core& core);

/// Forgets all that waits to be sent.
void ForgetAnswers(Core& core);

/// Moves on what is due. True when it moved anything: there may then be something to send.
bool AdvanceOutbox(Core& core, int64_t now);

/// When the next of it is due; kNever when nothing is.
int64_t NextOutboxTurn(const Core& core);

/// Makes the next datagram of what is to be sent now. False when there is none.
bool TakeFromOutbox(Core& core, int64_t now, OutgoingDatagram& out);

/// True when all that was to be sent at once was taken.
bool IsOutboxEmpty(const Core& core);

/// True when this host multicast these bytes of late.
bool WasSentHere(const Core& core, const uint8_t* bytes, size_t length);
