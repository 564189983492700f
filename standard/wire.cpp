// The message format.
#include "standard/wire.h"

#include <cstring>

namespace {

// The upper two bits of a length byte (RFC 1035, section 4.1.4): 00 is a label, 11 a pointer, all
// else was never given a meaning.
constexpr uint8_t kLengthKindMask = 0xC0;
constexpr uint8_t kPointerKind = 0xC0;
constexpr size_t kPointerSize = 2;
constexpr size_t kPointerReach = 0x4000;
// A name has at most 127 labels, so more pointers serve nobody but who wants them followed.
constexpr unsigned kPointersMax = 127;

constexpr size_t kFlagsOffset = 2;
constexpr size_t kCountsOffset = 4;
constexpr size_t kQuestionTailSize = 4;  // type, class
constexpr size_t kRecordTailSize = 10;   // type, class, TTL, length of the data
constexpr size_t kIpv4Size = 4;
constexpr size_t kIpv6Size = 16;

uint8_t LowerCase(uint8_t c) {
  return c >= 'A' && c <= 'Z' ? static_cast<uint8_t>(c - 'A' + 'a') : c;
}

bool AreBytesEqual(const uint8_t* a, const uint8_t* b, size_t length) {
  for (size_t i = 0; i < length; ++i) {
    if (LowerCase(a[i]) != LowerCase(b[i])) return false;
  }
  return true;
}

uint16_t Load16(const uint8_t* bytes) { return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]); }

uint32_t Load32(const uint8_t* bytes) {
  return static_cast<uint32_t>(Load16(bytes)) << 16 | Load16(bytes + 2);
}

void Store16(uint8_t* bytes, uint16_t value) {
  bytes[0] = static_cast<uint8_t>(value >> 8);
  bytes[1] = static_cast<uint8_t>(value & 0xFF);
}

void Store32(uint8_t* bytes, uint32_t value) {
  Store16(bytes, static_cast<uint16_t>(value >> 16));
  Store16(bytes + 2, static_cast<uint16_t>(value & 0xFFFF));
}

bool Has(const WireReader& reader, size_t count) {
  return reader.offset <= reader.length && count <= reader.length - reader.offset;
}

// Appends the label of `length` bytes at `offset` to `name`.
bool TakeLabel(const WireReader& reader, size_t offset, size_t length, Name& name) {
  if (reader.length - offset <= length) return false;
  return AppendLabel(name, {reinterpret_cast<const char*>(reader.bytes + offset + 1), length});
}

// Reads a name and moves behind it. Each pointer leads to before the run of labels that it ends.
bool ReadName(WireReader& reader, Name& name) {
  name = RootName();
  size_t offset = reader.offset;
  size_t runStart = offset;
  unsigned pointers = 0;
  while (offset < reader.length) {
    const uint8_t length = reader.bytes[offset];
    if (length == 0) {
      if (pointers == 0) reader.offset = offset + 1;
      return true;
    }
    if ((length & kLengthKindMask) == kPointerKind) {
      if (reader.length - offset < kPointerSize || pointers == kPointersMax) return false;
      const size_t target = Load16(reader.bytes + offset) & (kPointerReach - 1);
      if (target < kHeaderSize || target >= runStart) return false;
      if (pointers == 0) reader.offset = offset + kPointerSize;
      ++pointers;
      offset = target;
      runStart = target;
      continue;
    }
    if ((length & kLengthKindMask) != 0 || !TakeLabel(reader, offset, length, name)) return false;
    offset += size_t{length} + 1;
  }
  return false;
}

// The name at the reader's offset takes all of the data up to `end`, or leaves no more than what
// `record` has room for.
bool ExpandData(WireReader& reader, ReceivedRecord& record, size_t end, size_t before) {
  if (record.dataLength <= before) return false;
  reader.offset = end - record.dataLength + before;
  Name name;
  if (!ReadName(reader, name) || reader.offset > end) return false;
  const size_t behind = end - reader.offset;
  if (record.type != kTypeNsec && behind != 0) return false;
  // Longer than anything of one's own, so it stays as it is: nothing is equal to it.
  if (before + name.length + behind > kDataMax) return true;
  memcpy(record.buffer, record.data, before);
  memcpy(record.buffer + before, name.bytes, name.length);
  memcpy(record.buffer + before + name.length, reader.bytes + reader.offset, behind);
  record.data = record.buffer;
  record.dataLength = before + name.length + behind;
  return true;
}

bool ReadData(WireReader& reader, ReceivedRecord& record) {
  const size_t end = reader.offset + record.dataLength;
  bool isValid = true;
  switch (record.type) {
    case kTypeA:
      isValid = record.dataLength == kIpv4Size;
      break;
    case kTypeAaaa:
      isValid = record.dataLength == kIpv6Size;
      break;
    case kTypePtr:
    case kTypeNsec:
      isValid = ExpandData(reader, record, end, 0);
      break;
    case kTypeSrv:
      isValid = ExpandData(reader, record, end, kSrvTargetOffset);
      break;
    default:
      break;
  }
  reader.offset = end;
  return isValid;
}

bool ReadQuestionAt(WireReader& reader, Question& question) {
  if (!ReadName(reader, question.name) || !Has(reader, kQuestionTailSize)) return false;
  question.type = Load16(reader.bytes + reader.offset);
  question.classBits = Load16(reader.bytes + reader.offset + 2);
  reader.offset += kQuestionTailSize;
  return true;
}

bool ReadRecordAt(WireReader& reader, ReceivedRecord& record) {
  if (!ReadName(reader, record.name) || !Has(reader, kRecordTailSize)) return false;
  const uint8_t* tail = reader.bytes + reader.offset;
  record.type = Load16(tail);
  record.classBits = Load16(tail + 2);
  record.ttl = Load32(tail + 4);
  record.dataLength = Load16(tail + 8);
  reader.offset += kRecordTailSize;
  if (!Has(reader, record.dataLength)) return false;
  record.data = reader.bytes + reader.offset;
  return ReadData(reader, record);
}

bool Put(WireWriter& writer, const void* bytes, size_t count) {
  if (count > writer.capacity - writer.length) return false;
  memcpy(writer.bytes + writer.length, bytes, count);
  writer.length += count;
  return true;
}

bool Put16(WireWriter& writer, uint16_t value) {
  uint8_t bytes[2];
  Store16(bytes, value);
  return Put(writer, bytes, sizeof(bytes));
}

bool Put32(WireWriter& writer, uint32_t value) {
  uint8_t bytes[4];
  Store32(bytes, value);
  return Put(writer, bytes, sizeof(bytes));
}

// True when what was written at `offset` is the rest of a name. Own names keep their case, so they
// are compared exactly.
bool IsNameAt(const WireWriter& writer, size_t offset, const uint8_t* rest) {
  for (;;) {
    uint8_t length = writer.bytes[offset];
    while ((length & kLengthKindMask) == kPointerKind) {
      offset = Load16(writer.bytes + offset) & (kPointerReach - 1);
      length = writer.bytes[offset];
    }
    if (length != *rest) return false;
    if (length == 0) return true;
    if (memcmp(writer.bytes + offset + 1, rest + 1, length) != 0) return false;
    offset += size_t{length} + 1;
    rest += size_t{length} + 1;
  }
}

bool PutPointer(WireWriter& writer, const uint8_t* rest, bool& isWritten) {
  for (size_t i = 0; i < writer.targetCount; ++i) {
    if (!IsNameAt(writer, writer.targets[i], rest)) continue;
    isWritten = true;
    return Put16(writer, static_cast<uint16_t>(kPointerKind << 8 | writer.targets[i]));
  }
  return true;
}

bool PutName(WireWriter& writer, const Name& name, bool isCompressed) {
  if (!isCompressed) return Put(writer, name.bytes, name.length);
  // Places become targets once the whole name stands: until then there is nothing to compare with.
  uint16_t places[kNameMax / 2];
  size_t placeCount = 0;
  bool isWritten = false;
  const uint8_t* rest = name.bytes;
  while (*rest != 0) {
    if (!PutPointer(writer, rest, isWritten)) return false;
    if (isWritten) break;
    if (writer.length < kPointerReach) places[placeCount++] = static_cast<uint16_t>(writer.length);
    if (!Put(writer, rest, size_t{*rest} + 1)) return false;
    rest += size_t{*rest} + 1;
  }
  if (!isWritten && !Put(writer, rest, 1)) return false;
  for (size_t i = 0; i < placeCount && writer.targetCount < kPointerTargetsMax; ++i) {
    writer.targets[writer.targetCount++] = places[i];
  }
  return true;
}

// The length in bytes of the name that data begin with.
size_t NameLengthIn(const uint8_t* data) {
  size_t length = 0;
  while (data[length] != 0) length += size_t{data[length]} + 1;
  return length + 1;
}

bool PutDataWithName(WireWriter& writer, const Record& record, size_t before) {
  Name name;
  const size_t nameLength = NameLengthIn(record.data + before);
  memcpy(name.bytes, record.data + before, nameLength);
  name.length = static_cast<uint8_t>(nameLength);
  const size_t behind = before + nameLength;
  return Put(writer, record.data, before) && PutName(writer, name, writer.isDataCompressed) &&
         Put(writer, record.data + behind, record.dataLength - behind);
}

bool PutData(WireWriter& writer, const Record& record) {
  const size_t lengthOffset = writer.length;
  if (!Put16(writer, 0)) return false;
  bool isPut = false;
  switch (record.type) {
    case kTypePtr:
    case kTypeNsec:
      isPut = PutDataWithName(writer, record, 0);
      break;
    case kTypeSrv:
      isPut = PutDataWithName(writer, record, kSrvTargetOffset);
      break;
    default:
      isPut = Put(writer, record.data, record.dataLength);
      break;
  }
  if (!isPut) return false;
  Store16(writer.bytes + lengthOffset, static_cast<uint16_t>(writer.length - lengthOffset - 2));
  return true;
}

bool PutRecord(WireWriter& writer, const Record& record) {
  return PutName(writer, record.name, true) && Put16(writer, record.type) &&
         Put16(writer, record.classBits) && Put32(writer, record.ttl) && PutData(writer, record);
}

bool PutQuestion(WireWriter& writer, const Name& name, uint16_t type, uint16_t classBits) {
  return PutName(writer, name, true) && Put16(writer, type) && Put16(writer, classBits);
}

// Counts an entry that was put, or takes back what was put of it.
bool Settle(WireWriter& writer, Section section, bool isPut, size_t length, size_t targetCount) {
  if (isPut) {
    ++writer.counts[static_cast<size_t>(section)];
    return true;
  }
  writer.length = length;
  writer.targetCount = targetCount;
  return false;
}

bool HoldsName(uint16_t type) { return type == kTypePtr || type == kTypeSrv || type == kTypeNsec; }

}  // namespace

Name RootName() {
  Name name;
  name.bytes[0] = 0;
  name.length = 1;
  return name;
}

bool AppendLabel(Name& name, std::string_view label) {
  if (label.empty() || label.size() > kLabelMax || name.length + label.size() + 1 > kNameMax) {
    return false;
  }
  uint8_t* end = name.bytes + name.length - 1;
  *end = static_cast<uint8_t>(label.size());
  memcpy(end + 1, label.data(), label.size());
  end[1 + label.size()] = 0;
  name.length = static_cast<uint8_t>(name.length + label.size() + 1);
  return true;
}

bool AreNamesEqual(const Name& a, const Name& b) {
  return a.length == b.length && AreBytesEqual(a.bytes, b.bytes, a.length);
}

bool AreLabelsEqual(std::string_view a, std::string_view b) {
  return a.size() == b.size() &&
         AreBytesEqual(reinterpret_cast<const uint8_t*>(a.data()),
                       reinterpret_cast<const uint8_t*>(b.data()), a.size());
}

std::string_view NextLabel(const Name& name, size_t& offset) {
  const size_t length = name.bytes[offset];
  if (length == 0) return {};
  const char* label = reinterpret_cast<const char*>(name.bytes + offset + 1);
  offset += length + 1;
  return {label, length};
}

uint16_t MessageId(const uint8_t* bytes, size_t length) {
  return length < kHeaderSize ? uint16_t{0} : Load16(bytes);
}

uint16_t MessageFlags(const uint8_t* bytes, size_t length) {
  return length < kHeaderSize ? uint16_t{0} : Load16(bytes + kFlagsOffset);
}

WireReader ReadMessage(const uint8_t* bytes, size_t length) {
  WireReader reader = {bytes, length, kHeaderSize, {}, length < kHeaderSize};
  size_t entries = 0;
  for (size_t i = 0; !reader.isMalformed && i < kSections; ++i) {
    reader.left[i] = Load16(bytes + kCountsOffset + 2 * i);
    entries += reader.left[i];
  }
  if (entries > kEntriesMax) reader.isMalformed = true;
  return reader;
}

bool ReadQuestion(WireReader& reader, Question& question) {
  uint16_t& left = reader.left[static_cast<size_t>(Section::kQuestion)];
  if (reader.isMalformed || left == 0) return false;
  --left;
  reader.isMalformed = !ReadQuestionAt(reader, question);
  return !reader.isMalformed;
}

bool ReadRecord(WireReader& reader, ReceivedRecord& record) {
  Question question;
  while (ReadQuestion(reader, question)) {
  }
  if (reader.isMalformed) return false;
  for (size_t i = static_cast<size_t>(Section::kAnswer); i < kSections; ++i) {
    if (reader.left[i] == 0) continue;
    --reader.left[i];
    record.section = static_cast<Section>(i);
    reader.isMalformed = !ReadRecordAt(reader, record);
    return !reader.isMalformed;
  }
  return false;
}

bool IsWellFormed(const uint8_t* bytes, size_t length) {
  WireReader reader = ReadMessage(bytes, length);
  ReceivedRecord record;
  while (ReadRecord(reader, record)) {
  }
  return !reader.isMalformed;
}

WireWriter WriteMessage(uint8_t* bytes, size_t capacity, bool isDataCompressed) {
  return {bytes, capacity, kHeaderSize, {}, {}, 0, isDataCompressed};
}

bool WriteQuestion(WireWriter& writer, const Name& name, uint16_t type, uint16_t classBits) {
  const size_t length = writer.length;
  const size_t targetCount = writer.targetCount;
  const bool isPut = PutQuestion(writer, name, type, classBits);
  return Settle(writer, Section::kQuestion, isPut, length, targetCount);
}

bool WriteRecord(WireWriter& writer, Section section, const Record& record) {
  const size_t length = writer.length;
  const size_t targetCount = writer.targetCount;
  const bool isPut = PutRecord(writer, record);
  return Settle(writer, section, isPut, length, targetCount);
}

size_t FinishMessage(WireWriter& writer, uint16_t id, uint16_t flags) {
  Store16(writer.bytes, id);
  Store16(writer.bytes + kFlagsOffset, flags);
  for (size_t i = 0; i < kSections; ++i) {
    Store16(writer.bytes + kCountsOffset + 2 * i, writer.counts[i]);
  }
  return writer.length;
}

bool AreDataEqual(const Record& record, const uint8_t* data, size_t length) {
  if (record.dataLength != length) return false;
  if (!HoldsName(record.type)) return memcmp(record.data, data, length) == 0;
  const size_t before = record.type == kTypeSrv ? kSrvTargetOffset : 0;
  const size_t behind = before + NameLengthIn(record.data + before);
  return memcmp(record.data, data, before) == 0 &&
         AreBytesEqual(record.data + before, data + before, behind - before) &&
         memcmp(record.data + behind, data + behind, length - behind) == 0;
}
