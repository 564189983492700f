// Answering queries.
#include "standard/answer.h"

#include <cstring>

#include "standard/claim.h"
#include "standard/outbox.h"
#include "standard/random.h"
#include "standard/records.h"

namespace {

// What is known of a query when its questions are read.
struct Query {
  const ReceivedDatagram* datagram;
  Family family;
  bool isLegacy;       // from a conventional resolver, RFC 6762, section 6.7
  bool canBeUnicast;   // the asker is on the link, so that it may be answered alone
  bool isTruncated;    // more known answers are to come
  uint16_t questions;  // how many
  NameSet probed;      // own names that records are proposed for
  RecordSet known;     // what the asker says that it has
};

// What a query is answered with.
struct Answers {
  RecordSet multicast;
  RecordSet unicast;
  RecordSet defence;         // of names that are probed for, to all
  RecordSet unicastDefence;  // the same, to the prober alone
  bool hasShared;
};

void ReadRecords(const Core& core, Query& query) {
  WireReader reader = ReadMessage(query.datagram->bytes, query.datagram->length);
  const auto has = [&](Section section) { return reader.left[static_cast<size_t>(section)] != 0; };
  if (!has(Section::kAnswer) && !has(Section::kAuthority)) return;
  ReceivedRecord record;
  while (ReadRecord(reader, record)) {
    if (record.section == Section::kAdditional) return;
    const NameId name = FindName(core, record.name);
    if (name == kNamesMax) continue;
    if (record.section == Section::kAuthority) {
      query.probed.Add(name);
      continue;
    }
    const RecordId id = FindRecord(core, name, record);
    // RFC 6762, section 7.1: at least half of the time is left.
    if (id != kRecordsMax && record.ttl >= TtlOfRecord(core, id) / 2) query.known.Add(id);
  }
}

Query ReadQuery(const Core& core, const ReceivedDatagram& datagram) {
  Query query = {};
  query.datagram = &datagram;
  query.family = datagram.source.address.family;
  query.isLegacy = datagram.source.port != kMdnsPort;
  query.canBeUnicast = IsOnLink(core.link, datagram.source.address);
  query.isTruncated = (MessageFlags(datagram.bytes, datagram.length) & kFlagTruncated) != 0;
  query.questions =
      ReadMessage(datagram.bytes, datagram.length).left[static_cast<size_t>(Section::kQuestion)];
  ReadRecords(core, query);
  return query;
}

// Gives way to a probe for a name that is not held yet, if it is the stronger one.
void MeetRivals(Core& core, const Query& query, bool isFromSelf, int64_t now) {
  for (NameId id = query.probed.Next(0); id < kNamesMax; id = query.probed.Next(id + 1)) {
    const size_t claim = ClaimOfName(id);
    // Another program on this host speaks for the host too (RFC 6762, section 15).
    if (claim == kClaimsMax || (claim == kHostClaim && isFromSelf)) continue;
    if (!IsProbed(core, id, query.family)) continue;
    HandleRivalProbe(core, id, query.datagram->bytes, query.datagram->length, now);
  }
}

// Answers a question: with the records of the type, or, where the name is unique and has none, with
// the NSEC record that says so (RFC 6762, section 6.1).
RecordSet AnswersTo(const Core& core, NameId name, uint16_t type, Family family) {
  const RecordSet all = RecordsOfName(core, name);
  RecordSet answers = {};
  RecordSet negative = {};
  for (RecordId id = all.Next(0); id < kRecordsMax; id = all.Next(id + 1)) {
    if (!IsAnswered(core, id, family)) continue;
    if (IsNsecRecord(id)) negative.Add(id);
    const bool isAsked = type == kTypeAny ? !IsNsecRecord(id) : TypeOfRecord(core, id) == type;
    if (isAsked) answers.Add(id);
  }
  return answers.IsEmpty() ? negative : answers;
}

bool IsClassAsked(uint16_t classBits) {
  const uint16_t askedClass = classBits & static_cast<uint16_t>(~kClassTopBit);
  return askedClass == kClassIn || askedClass == kClassAny;
}

// RFC 6762, section 5.4: a record that was not multicast within the last quarter of its TTL goes to
// all.
bool WasMulticastOfLate(const Core& core, Family family, RecordId id, int64_t now) {
  const int64_t quarter = int64_t{TtlOfRecord(core, id)} * 1000 / 4;
  return AgeOf(core.multicastAt[static_cast<size_t>(family)][id], now) < quarter;
}

void AddAnswers(const Core& core, const Query& query, const RecordSet& records, bool isUnicast,
                int64_t now, Answers& answers) {
  for (RecordId id = records.Next(0); id < kRecordsMax; id = records.Next(id + 1)) {
    if (!IsUniqueRecord(id)) answers.hasShared = true;
    if (isUnicast && WasMulticastOfLate(core, query.family, id, now)) {
      answers.unicast.Add(id);
    } else {
      answers.multicast.Add(id);
    }
  }
}

Answers AnswersToAll(const Core& core, const Query& query, int64_t now) {
  Answers answers = {};
  WireReader reader = ReadMessage(query.datagram->bytes, query.datagram->length);
  Question question;
  while (ReadQuestion(reader, question)) {
    if (!IsClassAsked(question.classBits)) continue;
    const NameId name = FindName(core, question.name);
    if (name == kNamesMax) continue;
    const RecordSet records = AnswersTo(core, name, question.type, query.family);
    // A question that came to this host alone is answered likewise (RFC 6762, section 5.5).
    const bool isUnicast = query.canBeUnicast && ((question.classBits & kClassTopBit) != 0 ||
                                                  !query.datagram->isMulticast);
    if (query.probed.Has(name) && ClaimOfName(name) != kClaimsMax) {
      answers.defence.AddAll(records);
      if (isUnicast) answers.unicastDefence.AddAll(records);
    } else {
      AddAnswers(core, query, records, isUnicast, now, answers);
    }
  }
  answers.multicast.RemoveAll(query.known);
  answers.unicast.RemoveAll(query.known);
  return answers;
}

int64_t DelayOf(Core& core, const Query& query, const Answers& answers) {
  if (query.isTruncated) return RandomBetween(core, kTruncatedDelayMin, kTruncatedDelayMax);
  if (answers.hasShared || query.questions > 1) {
    return RandomBetween(core, kSharedDelayMin, kSharedDelayMax);
  }
  return 0;
}

// A reply that needs a place of its own: it goes to the asker, or waits for what he knows. Without
// a place all of it goes to all, whatever he knows.
void Reserve(Core& core, const Query& query, const RecordSet& multicast, const RecordSet& unicast,
             int64_t now, int64_t due) {
  if (multicast.IsEmpty() && unicast.IsEmpty()) return;
  Reply* reply = NewReply(core);
  if (reply == nullptr) {
    MulticastLater(core, query.family, multicast, due);
    MulticastLater(core, query.family, unicast, due);
    return;
  }
  reply->isOpen = query.isTruncated;
  reply->due = due;
  reply->openedAt = now;
  reply->asker = query.datagram->source;
  reply->multicast = multicast;
  reply->unicast = unicast;
}

void Defend(Core& core, const Query& query, const Answers& answers, int64_t now) {
  // To all as well: two hosts with one hardware address do not hear unicast from each other.
  DefendLater(core, query.family, answers.defence, now);
  Reserve(core, query, {}, answers.unicastDefence, now, now);
}

void Schedule(Core& core, const Query& query, const Answers& answers, int64_t now) {
  const int64_t due = now + DelayOf(core, query, answers);
  if (query.isTruncated) {
    Reserve(core, query, answers.multicast, answers.unicast, now, due);
  } else {
    MulticastLater(core, query.family, answers.multicast, due);
    Reserve(core, query, {}, answers.unicast, now, due);
  }
}

bool IsSameAsker(const Endpoint& a, const Endpoint& b) {
  return a.port == b.port && AreAddressesEqual(a.address, b.address);
}

// The last query of the asker that still waits for known answers; null when there is none.
Reply* FindOpenReply(Core& core, const Endpoint& asker) {
  Reply* found = nullptr;
  for (Reply& reply : core.replies) {
    if (!reply.isUsed || !reply.isOpen || !IsSameAsker(reply.asker, asker)) {
      continue;
    }
    if (found == nullptr || reply.openedAt > found->openedAt) found = &reply;
  }
  return found;
}

// RFC 6762, section 7.2: a query without questions brings more known answers.
void AddKnownAnswers(Core& core, const Query& query, int64_t now) {
  Reply* reply = FindOpenReply(core, query.datagram->source);
  if (reply == nullptr) return;
  reply->multicast.RemoveAll(query.known);
  reply->unicast.RemoveAll(query.known);
  if (!query.isTruncated) return;
  const int64_t due = now + RandomBetween(core, kTruncatedDelayMin, kTruncatedDelayMax);
  reply->due = Earlier(due, reply->openedAt + kTruncatedWaitMax);
}

// Takes the questions along that the reply repeats, as many as there is room for.
void CopyQuestions(const Query& query, LegacyReply& reply) {
  WireReader reader = ReadMessage(query.datagram->bytes, query.datagram->length);
  Question question;
  reply.questionCount = 0;
  while (reply.questionCount < kLegacyQuestionsMax && ReadQuestion(reader, question)) {
    reply.questions[reply.questionCount] = question;
    ++reply.questionCount;
  }
}

// A legacy query is answered alike whoever on the link asks, so its reply is kept.
void KeepQuery(Core& core, const ReceivedDatagram& datagram) {
  RepeatedReply& repeated = core.repeated;
  const size_t length = datagram.length - kIdSize;
  if (length > sizeof(repeated.query)) return;
  repeated.family = datagram.source.address.family;
  repeated.queryLength = static_cast<uint16_t>(length);
  repeated.replyLength = 0;
  memcpy(repeated.query, datagram.bytes + kIdSize, length);
}

void ReplyToLegacy(Core& core, const Query& query, const Answers& answers) {
  LegacyReply& reply = core.legacy;
  if (reply.isUsed || !query.canBeUnicast || query.datagram->source.port == 0) return;
  reply.records = answers.multicast;
  reply.records.AddAll(answers.unicast);
  reply.records.AddAll(answers.defence);
  if (reply.records.IsEmpty()) return;
  CopyQuestions(query, reply);
  // Against a probe there is more to do than to answer it.
  if (query.probed.IsEmpty()) KeepQuery(core, *query.datagram);
  reply.isUsed = true;
  reply.isRepeated = false;
  reply.asker = query.datagram->source;
  reply.id = MessageId(query.datagram->bytes, query.datagram->length);
}

}  // namespace

bool HandleRepeatedQuery(Core& core, const ReceivedDatagram& query) {
  const RepeatedReply& repeated = core.repeated;
  const uint16_t port = query.source.port;
  if (repeated.replyLength == 0 || query.length != kIdSize + repeated.queryLength ||
      memcmp(query.bytes + kIdSize, repeated.query, repeated.queryLength) != 0 ||
      query.source.address.family != repeated.family || port == kMdnsPort || port == 0 ||
      core.legacy.isUsed || !IsOnLink(core.link, query.source.address)) {
    return false;
  }
  core.legacy.isUsed = true;
  core.legacy.isRepeated = true;
  core.legacy.asker = query.source;
  core.legacy.id = MessageId(query.bytes, query.length);
  return true;
}

void ForgetRepeated(Core& core) {
  if (core.repeated.queryLength == 0) return;
  core.repeated.queryLength = 0;
  core.repeated.replyLength = 0;
}

void HandleQuery(Core& core, const ReceivedDatagram& datagram, bool isFromSelf, int64_t now) {
  const Query query = ReadQuery(core, datagram);
  MeetRivals(core, query, isFromSelf, now);
  if (query.questions == 0) {
    AddKnownAnswers(core, query, now);
    return;
  }
  const Answers answers = AnswersToAll(core, query, now);
  if (query.isLegacy) {
    ReplyToLegacy(core, query, answers);
    return;
  }
  Defend(core, query, answers, now);
  Schedule(core, query, answers, now);
}
