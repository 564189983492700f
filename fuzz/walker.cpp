// A reader of DNS messages that shares nothing with the code under test.
#include "fuzz/walker.h"

namespace {

constexpr size_t kLongestLabel = 64;

// Takes whole fields off the front; `failed` once one is not there.
struct Cursor {
  std::string_view bytes;
  size_t offset;
  bool failed;

  std::string Take(size_t count) {
    if (count > bytes.size() - offset) {
      failed = true;
      return std::string(count, '\0');
    }
    offset += count;
    return std::string(bytes.substr(offset - count, count));
  }
  uint32_t Number(size_t width) {
    uint32_t number = 0;
    for (const char digit : Take(width)) number = number * 256 + static_cast<uint8_t>(digit);
    return number;
  }
};

Labels TakeName(Cursor& cursor) {
  Labels name;
  while (!cursor.failed) {
    const size_t length = cursor.Number(1);
    if (length == 0) break;
    if (length > kLongestLabel) cursor.failed = true;
    name.push_back(cursor.Take(length));
  }
  return name;
}

WireRecord TakeQuestion(Cursor& cursor) {
  WireRecord question = {};
  question.name = TakeName(cursor);
  question.type = static_cast<uint16_t>(cursor.Number(2));
  question.recordClass = static_cast<uint16_t>(cursor.Number(2));
  return question;
}

WireRecord TakeRecord(Cursor& cursor) {
  WireRecord record = TakeQuestion(cursor);
  record.ttl = cursor.Number(4);
  record.data = cursor.Take(cursor.Number(2));
  return record;
}

void TakeRecords(Cursor& cursor, uint32_t count, std::vector<WireRecord>& records) {
  for (uint32_t i = 0; i < count && !cursor.failed; ++i) records.push_back(TakeRecord(cursor));
}

}  // namespace

bool WalkMessage(std::string_view packet, WireMessage& message) {
  message = {};
  Cursor cursor = {packet, 0, false};
  message.id = static_cast<uint16_t>(cursor.Number(2));
  message.flags = static_cast<uint16_t>(cursor.Number(2));
  const uint32_t questions = cursor.Number(2);
  const uint32_t answers = cursor.Number(2);
  const uint32_t authorities = cursor.Number(2);
  const uint32_t additionals = cursor.Number(2);
  for (uint32_t i = 0; i < questions && !cursor.failed; ++i) {
    message.questions.push_back(TakeQuestion(cursor));
  }
  TakeRecords(cursor, answers, message.answers);
  TakeRecords(cursor, authorities, message.authorities);
  TakeRecords(cursor, additionals, message.additionals);
  return !cursor.failed && cursor.offset == packet.size();
}

bool WalkName(std::string_view bytes, size_t& offset, Labels& name) {
  Cursor cursor = {bytes, offset, offset > bytes.size()};
  name = TakeName(cursor);
  offset = cursor.offset;
  return !cursor.failed;
}

bool WalkStrings(std::string_view bytes, Labels& strings) {
  strings.clear();
  Cursor cursor = {bytes, 0, false};
  while (!cursor.failed && cursor.offset < bytes.size()) {
    strings.push_back(cursor.Take(cursor.Number(1)));
  }
  return !cursor.failed;
}
