// What is to be sent.
#include "standard/outbox.h"

#include <cstring>

#include "standard/records.h"

namespace {

constexpr uint16_t kFlagsOfResponse = kFlagResponse | kFlagAuthoritative;

constexpr Endpoint kGroups[kFamilies] = {
    {{Family::kIpv4, {224, 0, 0, 251}}, kMdnsPort},
    {{Family::kIpv6, {0xFF, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFB}}, kMdnsPort},
};

// How the records of a datagram are written.
struct Style {
  bool isGoodbye;
  bool isLegacy;
};

bool CanSend(const Core& core, Family family) {
  return (core.families & 1U << static_cast<unsigned>(family)) != 0;
}

// The bytes of a message that fit into a packet of the link.
size_t MessageRoom(const Core& core) {
  const size_t mtu = core.link.mtu;
  if (mtu < kPacketHeaders + kHeaderSize) return kHeaderSize;
  return mtu - kPacketHeaders < kDatagramMax ? mtu - kPacketHeaders : kDatagramMax;
}

// FNV-1a.
uint32_t HashOf(const uint8_t* bytes, size_t length) {
  uint32_t hash = 0x811C9DC5;
  for (size_t i = 0; i < length; ++i) hash = (hash ^ bytes[i]) * 0x01000193;
  return hash;
}

void RememberSent(Core& core, const OutgoingDatagram& out) {
  core.sentHashes[core.nextSentHash] = HashOf(out.bytes, out.length);
  core.nextSentHash = static_cast<uint8_t>((core.nextSentHash + 1) % kSentHashes);
}

void AddWaiting(WaitingRecords& waiting, const RecordSet& records, int64_t due) {
  if (records.IsEmpty()) return;
  waiting.records.AddAll(records);
  waiting.due = Earlier(waiting.due, due);
}

// Everybody on the family has heard the record.
void NoteMulticast(Core& core, Family family, RecordId id, int64_t now) {
  const size_t i = static_cast<size_t>(family);
  core.multicastAt[i][id] = ToPast(now);
  core.answers[i].records.Remove(id);
  core.outbox[i].answers.Remove(id);
  for (Reply& reply : core.replies) {
    if (reply.isUsed && reply.asker.address.family == family) reply.multicast.Remove(id);
  }
}

bool WriteStyled(WireWriter& writer, const Core& core, Section section, RecordId id,
                 const Style& style) {
  Record record;
  if (!DescribeRecord(core, id, record)) return true;
  if (style.isGoodbye) record.ttl = 0;
  if (style.isLegacy && record.ttl > kTtlLegacyMax) record.ttl = kTtlLegacyMax;
  if (!style.isLegacy && IsUniqueRecord(id)) record.classBits |= kClassTopBit;
  return WriteRecord(writer, section, record);
}

// A first record that is larger than a packet goes out alone (RFC 6762, section 17).
bool WriteAnswer(WireWriter& writer, const Core& core, RecordId id, const Style& style) {
  if (WriteStyled(writer, core, Section::kAnswer, id, style)) return true;
  if (writer.counts[static_cast<size_t>(Section::kAnswer)] != 0) return false;
  const size_t room = writer.capacity;
  writer.capacity = kDatagramMax;
  const bool isWritten = WriteStyled(writer, core, Section::kAnswer, id, style);
  writer.capacity = writer.length > room ? writer.length : room;
  return isWritten;
}

// Writes as many of the records as fit, takes them out of the set and returns them.
RecordSet WriteAnswers(WireWriter& writer, const Core& core, RecordSet& records,
                       const Style& style) {
  RecordSet written = {};
  for (RecordId id = records.Next(0); id < kRecordsMax; id = records.Next(id + 1)) {
    if (!WriteAnswer(writer, core, id, style)) break;
    written.Add(id);
    records.Remove(id);
  }
  return written;
}

// The addresses of a family are one set, of which all go along or none.
bool AreOneSet(const Core& core, RecordId a, RecordId b) {
  return a < kReverseRecords && b < kReverseRecords &&
         TypeOfRecord(core, a) == TypeOfRecord(core, b);
}

bool WriteSet(WireWriter& writer, const Core& core, RecordId first, const RecordSet& records,
              const Style& style, RecordSet& written) {
  const WireWriter before = writer;
  RecordSet set = {};
  for (RecordId id = first; id < kRecordsMax; id = records.Next(id + 1)) {
    if (id != first && !AreOneSet(core, first, id)) continue;
    if (!WriteStyled(writer, core, Section::kAdditional, id, style)) {
      writer = before;
      return false;
    }
    set.Add(id);
  }
  written.AddAll(set);
  return true;
}

// Writes as many of the records as still fit into the packet and returns them.
RecordSet WriteAdditionals(WireWriter& writer, const Core& core, const RecordSet& records,
                           const Style& style) {
  RecordSet written = {};
  RecordSet tried = {};
  for (RecordId id = records.Next(0); id < kRecordsMax; id = records.Next(id + 1)) {
    if (tried.Has(id)) continue;
    for (RecordId other = id; other < kRecordsMax; other = records.Next(other + 1)) {
      if (other == id || AreOneSet(core, id, other)) tried.Add(other);
    }
    WriteSet(writer, core, id, records, style, written);
  }
  return written;
}

void LeaveOutUnanswered(const Core& core, Family family, RecordSet& records) {
  for (RecordId id = records.Next(0); id < kRecordsMax; id = records.Next(id + 1)) {
    if (!IsAnswered(core, id, family)) records.Remove(id);
  }
}

RecordSet AdditionalsFor(const Core& core, Family family, const RecordSet& answers) {
  RecordSet records = AdditionalsOf(core, answers);
  LeaveOutUnanswered(core, family, records);
  return records;
}

void LeaveOutRecent(const Core& core, Family family, RecordSet& records, int64_t interval,
                    int64_t now) {
  const size_t i = static_cast<size_t>(family);
  for (RecordId id = records.Next(0); id < kRecordsMax; id = records.Next(id + 1)) {
    if (AgeOf(core.multicastAt[i][id], now) < interval) records.Remove(id);
  }
}

void NoteAllMulticast(Core& core, Family family, const RecordSet& records, int64_t now) {
  for (RecordId id = records.Next(0); id < kRecordsMax; id = records.Next(id + 1)) {
    NoteMulticast(core, family, id, now);
  }
}

bool TakeGoodbyes(Core& core, Family family, OutgoingDatagram& out) {
  RecordSet& records = core.outbox[static_cast<size_t>(family)].goodbyes;
  WireWriter writer = WriteMessage(out.bytes, MessageRoom(core), true);
  WriteAnswers(writer, core, records, {true, false});
  out.length = FinishMessage(writer, 0, kFlagsOfResponse);
  return writer.counts[static_cast<size_t>(Section::kAnswer)] != 0;
}

bool TakeAnswers(Core& core, Family family, int64_t now, OutgoingDatagram& out) {
  RecordSet& records = core.outbox[static_cast<size_t>(family)].answers;
  const Style style = {false, false};
  WireWriter writer = WriteMessage(out.bytes, MessageRoom(core), true);
  const RecordSet answers = WriteAnswers(writer, core, records, style);
  NoteAllMulticast(core, family, answers, now);
  RecordSet additionals = AdditionalsFor(core, family, answers);
  LeaveOutRecent(core, family, additionals, kRecordInterval, now);
  NoteAllMulticast(core, family, WriteAdditionals(writer, core, additionals, style), now);
  out.length = FinishMessage(writer, 0, kFlagsOfResponse);
  return writer.counts[static_cast<size_t>(Section::kAnswer)] != 0;
}

bool WriteProposals(WireWriter& writer, const Core& core, NameId name) {
  const RecordSet records = RecordsOfName(core, name);
  for (RecordId id = records.Next(0); id < kRecordsMax; id = records.Next(id + 1)) {
    Record record;
    if (IsNsecRecord(id) || !DescribeRecord(core, id, record)) continue;
    if (!WriteRecord(writer, Section::kAuthority, record)) return false;
  }
  return true;
}

// Writes a probe for the first `count` names of the set (RFC 6762, section 8.1): a question for
// each, then the records that are proposed for all of them.
bool WriteProbe(WireWriter& writer, const Core& core, const NameSet& names, size_t count) {
  bool areWritten = true;
  size_t written = 0;
  for (NameId id = names.Next(0); id < kNamesMax && written < count; id = names.Next(id + 1)) {
    Name name;
    ++written;
    if (DescribeName(core, id, name)) {
      areWritten &= WriteQuestion(writer, name, kTypeAny, kClassIn | kClassTopBit);
    }
  }
  written = 0;
  for (NameId id = names.Next(0); id < kNamesMax && written < count; id = names.Next(id + 1)) {
    ++written;
    if (!WriteProposals(writer, core, id)) return false;
  }
  return areWritten;
}

void RemoveFirst(NameSet& names, size_t count) {
  for (; count != 0; --count) {
    const NameId id = names.Next(0);
    if (id < kNamesMax) names.Remove(id);
  }
}

size_t CountOf(const NameSet& names) {
  size_t count = 0;
  for (NameId id = names.Next(0); id < kNamesMax; id = names.Next(id + 1)) ++count;
  return count;
}

// Questions stand before all records, so how many names share a packet is found by trying: one more
// each time, and one alone whatever its size.
bool TakeProbe(Core& core, Family family, OutgoingDatagram& out) {
  NameSet& names = core.outbox[static_cast<size_t>(family)].probes;
  const size_t count = CountOf(names);
  size_t fitting = 0;
  while (fitting < count) {
    WireWriter writer = WriteMessage(out.bytes, MessageRoom(core), true);
    if (!WriteProbe(writer, core, names, fitting + 1)) break;
    ++fitting;
  }
  const size_t taken = fitting != 0 ? fitting : 1;
  WireWriter writer =
      WriteMessage(out.bytes, fitting != 0 ? MessageRoom(core) : kDatagramMax, true);
  WriteProbe(writer, core, names, taken);
  out.length = FinishMessage(writer, 0, 0);
  RemoveFirst(names, taken);
  return writer.counts[static_cast<size_t>(Section::kQuestion)] != 0;
}

bool TakeMulticast(Core& core, Family family, int64_t now, OutgoingDatagram& out) {
  Outbox& outbox = core.outbox[static_cast<size_t>(family)];
  if (!CanSend(core, family)) {
    outbox = {};
    return false;
  }
  bool isTaken = false;
  if (!isTaken && !outbox.goodbyes.IsEmpty()) isTaken = TakeGoodbyes(core, family, out);
  if (!isTaken && !outbox.answers.IsEmpty()) isTaken = TakeAnswers(core, family, now, out);
  if (!isTaken && !outbox.probes.IsEmpty()) isTaken = TakeProbe(core, family, out);
  if (!isTaken) return false;
  out.destination = kGroups[static_cast<size_t>(family)];
  RememberSent(core, out);
  return true;
}

// The budget of a host, which is a fresh one if it was sent nothing of late; null when too many
// others were.
HostBudget* BudgetOf(Core& core, const Address& address, int64_t now) {
  HostBudget* free = nullptr;
  for (HostBudget& budget : core.budgets) {
    const bool isOver = budget.end <= now;
    if (!isOver && AreAddressesEqual(budget.address, address)) return &budget;
    if (isOver && free == nullptr) free = &budget;
  }
  if (free != nullptr) *free = {address, now + kUnicastPeriod, 0};
  return free;
}

// Takes one datagram from what may be sent to a host. False when it has had its share.
bool SpendUnicast(Core& core, const Address& address, int64_t now) {
  if (core.unicastEnd <= now) {
    core.unicastEnd = now + kUnicastPeriod;
    core.unicastSent = 0;
  }
  HostBudget* budget = BudgetOf(core, address, now);
  if (core.unicastSent >= kUnicastInAll || budget == nullptr || budget->sent >= kUnicastPerHost) {
    return false;
  }
  ++core.unicastSent;
  ++budget->sent;
  return true;
}

bool TakeReply(Core& core, Reply& reply, int64_t now, OutgoingDatagram& out) {
  const Family family = reply.asker.address.family;
  LeaveOutUnanswered(core, family, reply.unicast);
  if (reply.unicast.IsEmpty()) return false;
  if (!SpendUnicast(core, reply.asker.address, now)) {
    MulticastLater(core, family, reply.unicast, now);
    return false;
  }
  const Style style = {false, false};
  WireWriter writer = WriteMessage(out.bytes, MessageRoom(core), true);
  const RecordSet answers = WriteAnswers(writer, core, reply.unicast, style);
  WriteAdditionals(writer, core, AdditionalsFor(core, family, answers), style);
  out.length = FinishMessage(writer, 0, kFlagsOfResponse);
  out.destination = reply.asker;
  return true;
}

bool TakeReplies(Core& core, int64_t now, OutgoingDatagram& out) {
  for (Reply& reply : core.replies) {
    if (!reply.isUsed || !reply.isReady) continue;
    if (CanSend(core, reply.asker.address.family) && TakeReply(core, reply, now, out)) return true;
    reply.isUsed = false;
  }
  return false;
}

void TakeRepeated(const RepeatedReply& repeated, uint16_t id, OutgoingDatagram& out) {
  out.bytes[0] = static_cast<uint8_t>(id >> 8);
  out.bytes[1] = static_cast<uint8_t>(id & 0xFF);
  memcpy(out.bytes + kIdSize, repeated.reply, repeated.replyLength);
  out.length = kIdSize + repeated.replyLength;
}

void KeepReply(RepeatedReply& repeated, const OutgoingDatagram& out) {
  const size_t length = out.length - kIdSize;
  if (repeated.queryLength == 0 || length > sizeof(repeated.reply)) return;
  memcpy(repeated.reply, out.bytes + kIdSize, length);
  repeated.replyLength = static_cast<uint16_t>(length);
}

// RFC 6762, section 6.7: what a conventional resolver expects.
bool TakeLegacy(Core& core, int64_t now, OutgoingDatagram& out) {
  LegacyReply& reply = core.legacy;
  if (!reply.isUsed) return false;
  reply.isUsed = false;
  const Family family = reply.asker.address.family;
  if (!CanSend(core, family) || !SpendUnicast(core, reply.asker.address, now)) return false;
  out.destination = reply.asker;
  if (reply.isRepeated) {
    TakeRepeated(core.repeated, reply.id, out);
    return true;
  }
  const Style style = {false, true};
  WireWriter writer = WriteMessage(out.bytes, MessageRoom(core), false);
  for (size_t i = 0; i < reply.questionCount; ++i) {
    const Question& question = reply.questions[i];
    if (!WriteQuestion(writer, question.name, question.type, question.classBits)) break;
  }
  RecordSet rest = reply.records;
  const RecordSet answers = WriteAnswers(writer, core, rest, style);
  WriteAdditionals(writer, core, AdditionalsFor(core, family, answers), style);
  const uint16_t truncated = rest.IsEmpty() ? uint16_t{0} : kFlagTruncated;
  out.length = FinishMessage(writer, reply.id, kFlagsOfResponse | truncated);
  KeepReply(core.repeated, out);
  return true;
}

// Moves what is due and allowed of the waiting records to the outbox.
bool Release(Core& core, Family family, WaitingRecords& waiting, int64_t interval, int64_t now) {
  if (waiting.due > now) return false;
  const size_t index = static_cast<size_t>(family);
  RecordSet ready = {};
  LeaveOutUnanswered(core, family, waiting.records);
  waiting.due = kNever;
  for (RecordId id = waiting.records.Next(0); id < kRecordsMax; id = waiting.records.Next(id + 1)) {
    const int64_t age = AgeOf(core.multicastAt[index][id], now);
    if (age >= interval) {
      ready.Add(id);
    } else {
      waiting.due = Earlier(waiting.due, now + interval - age);
    }
  }
  if (ready.IsEmpty()) return false;
  waiting.records.RemoveAll(ready);
  CompleteSets(core, ready);
  LeaveOutRecent(core, family, ready, interval, now);
  core.outbox[index].answers.AddAll(ready);
  return true;
}

// What a reply says to all joins the rest that waits.
bool ReleaseReplies(Core& core, int64_t now) {
  bool hasReleased = false;
  for (Reply& reply : core.replies) {
    if (!reply.isUsed || reply.isReady || reply.due > now) continue;
    const Family family = reply.asker.address.family;
    MulticastLater(core, family, reply.multicast, now);
    reply.multicast = {};
    LeaveOutUnanswered(core, family, reply.unicast);
    CompleteSets(core, reply.unicast);
    reply.isReady = true;
    hasReleased = true;
  }
  return hasReleased;
}

}  // namespace

void MulticastLater(Core& core, Family family, const RecordSet& records, int64_t due) {
  AddWaiting(core.answers[static_cast<size_t>(family)], records, due);
}

void DefendLater(Core& core, Family family, const RecordSet& records, int64_t now) {
  AddWaiting(core.defences[static_cast<size_t>(family)], records, now);
}

void SuppressAnswers(Core& core, Family family, const RecordSet& records) {
  core.answers[static_cast<size_t>(family)].records.RemoveAll(records);
  for (Reply& reply : core.replies) {
    if (reply.isUsed && reply.asker.address.family == family) reply.multicast.RemoveAll(records);
  }
}

void SendGoodbyes(Core& core, const RecordSet& records) {
  for (Outbox& outbox : core.outbox) outbox.goodbyes.AddAll(records);
}

void SendProbes(Core& core, const NameSet& names) {
  for (Outbox& outbox : core.outbox) {
    for (size_t i = 0; i < NameSet::kWords; ++i) outbox.probes.words[i] |= names.words[i];
  }
}

Reply* NewReply(Core& core) {
  for (Reply& reply : core.replies) {
    if (reply.isUsed) continue;
    reply = {};
    reply.isUsed = true;
    return &reply;
  }
  return nullptr;
}

void ForgetAnswers(Core& core) {
  for (size_t i = 0; i < kFamilies; ++i) {
    core.answers[i] = {{}, kNever};
    core.defences[i] = {{}, kNever};
  }
  for (Reply& reply : core.replies) {
    if (reply.isUsed) reply.isUsed = false;
  }
  if (core.legacy.isUsed) core.legacy.isUsed = false;
}

bool AdvanceOutbox(Core& core, int64_t now) {
  bool hasAdvanced = ReleaseReplies(core, now);
  for (size_t i = 0; i < kFamilies; ++i) {
    const Family family = static_cast<Family>(i);
    if (Release(core, family, core.defences[i], kDefenceInterval, now)) hasAdvanced = true;
    if (Release(core, family, core.answers[i], kRecordInterval, now)) hasAdvanced = true;
  }
  return hasAdvanced;
}

int64_t NextOutboxTurn(const Core& core) {
  int64_t next = core.legacy.isUsed ? 0 : kNever;
  for (size_t i = 0; i < kFamilies; ++i) {
    next = Earlier(next, Earlier(core.answers[i].due, core.defences[i].due));
  }
  for (const Reply& reply : core.replies) {
    if (reply.isUsed) next = Earlier(next, reply.due);
  }
  return IsOutboxEmpty(core) ? next : 0;
}

bool TakeFromOutbox(Core& core, int64_t now, OutgoingDatagram& out) {
  if (TakeLegacy(core, now, out)) return true;
  for (size_t i = 0; i < kFamilies; ++i) {
    if (TakeMulticast(core, static_cast<Family>(i), now, out)) return true;
  }
  return TakeReplies(core, now, out);
}

bool IsOutboxEmpty(const Core& core) {
  for (const Outbox& outbox : core.outbox) {
    if (!outbox.goodbyes.IsEmpty() || !outbox.answers.IsEmpty() || !outbox.probes.IsEmpty()) {
      return false;
    }
  }
  return true;
}

bool WasSentHere(const Core& core, const uint8_t* bytes, size_t length) {
  const uint32_t hash = HashOf(bytes, length);
  for (const uint32_t sent : core.sentHashes) {
    if (sent == hash) return true;
  }
  return false;
}
