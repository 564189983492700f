// Record encoding with any capacity, position and text.
#include <algorithm>
#include <string>
#include <vector>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/packet_check.h"
#include "records/encode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr size_t kMaxRecords = 24;
constexpr int32_t kCapacityLimit = 5000;
constexpr int32_t kTypes[] = {1, 12, 16, 33, 47, 255, 28, 257};

// A text is given as it stands or as a part that is repeated, to reach the limits of the fields.
void SetField(char* field, size_t limit, const std::string& part, unsigned repeats) {
  std::string text;
  for (unsigned i = 0; i < repeats && text.size() < limit; ++i) text += part;
  text.copy(field, limit);
}

MdnsRecord ReadRecord(Input& script) {
  MdnsRecord record = {};
  const uint8_t what = script.Byte();
  record.cacheFlush = what & 128;
  const std::string owner = script.Text();
  const std::string data = script.LongText();
  const unsigned repeats = (what & 64) != 0 ? script.Byte() : 1;
  SetField(record.name, sizeof(record.name) - 1, owner, repeats);
  SetField(record.rdata, sizeof(record.rdata) - 1, data, repeats);
  record.type = (what & 32) != 0 ? static_cast<int32_t>(script.Long()) : kTypes[what % 8];
  record.ttl = script.Long();
  record.port = static_cast<int32_t>(script.Long());
  if (record.type == kTypeNsec) {
    record.nsecNextOffset = script.Word();
    record.bitmapLength = script.Byte() % 33;
    script.Bytes(static_cast<size_t>(record.bitmapLength))
        .copy(reinterpret_cast<char*>(record.bitmap), sizeof(record.bitmap));
  }
  return record;
}

// One run of labels anywhere: in front of the buffer's end, across it and after it.
void CheckLabels(Input& script) {
  const int32_t capacity = script.Word() % kCapacityLimit;
  const int32_t position = script.Word();
  const auto separator = static_cast<char>(script.Byte());
  const int32_t maxLabel = std::max<int32_t>(script.Byte(), 1);
  const ExactBytes text(script.Block());
  const ExactBytes buffer(std::string(static_cast<size_t>(capacity), '\0'));
  const int32_t end =
      EncodeLabels(buffer.Data(), capacity, position, separator, text.Text(), maxLabel);
  REQUIRE(end >= position, "labels end behind their start");
  if (end >= capacity) return;

  const auto start = static_cast<size_t>(position);
  const std::string_view written =
      buffer.Text().substr(start, static_cast<size_t>(end) - 1 - start);
  Labels labels;
  REQUIRE(WalkStrings(written, labels), "labels are whole");
  size_t found = 0;
  for (const std::string& label : labels) {
    REQUIRE(!label.empty() && label.size() <= static_cast<size_t>(maxLabel) &&
                label.find(separator) == std::string::npos,
            "a label has its 1 to most characters, without a separator");
    found = text.Text().find(label, found);
    REQUIRE(found != std::string::npos, "labels stand in the order of the text");
    found += label.size();
  }
}

void RequireSameFields(const WireRecord& wire, const MdnsRecord& record) {
  REQUIRE(wire.type == (record.type & 0xFF), "a record has the type that was put in");
  REQUIRE(wire.recordClass == (record.cacheFlush != 0 ? 0x8001 : 0x0001),
          "a record has the class that was put in");
}

// A packet of records in their order, each also alone, anywhere.
void CheckPacket(Input& script) {
  const int32_t capacity = kHeaderSize + script.Word() % kCapacityLimit;
  const int32_t start = script.Word();
  const ExactBytes buffer(std::string(static_cast<size_t>(capacity), '\0'));
  const ExactBytes other(std::string(static_cast<size_t>(capacity), '\0'));
  std::vector<MdnsRecord> records;
  const uint8_t questions = script.Byte() % 4;
  int32_t length = kHeaderSize;
  for (; records.size() < kMaxRecords && !script.IsEmpty(); records.push_back(ReadRecord(script))) {
  }
  for (size_t i = 0; i < records.size(); ++i) {
    const uint32_t isQuestion = i < questions ? 1 : 0;
    const int32_t before = length;
    length = EncodeRecord(buffer.Data(), capacity, length, records[i], isQuestion);
    REQUIRE(length > before, "a record ends behind its start");
    EncodeRecord(other.Data(), capacity, start, records[i], isQuestion);
  }
  if (length >= capacity) return;

  const size_t asked = std::min<size_t>(questions, records.size());
  buffer.Data()[kQuestionCountOffset + 1] = static_cast<uint8_t>(asked);
  buffer.Data()[kAnswerCountOffset + 1] = static_cast<uint8_t>(records.size() - asked);
  WireMessage message;
  REQUIRE(WalkMessage(buffer.Text().substr(0, static_cast<size_t>(length)), message),
          "a packet parses to its last byte");
  for (size_t i = 0; i < asked; ++i) RequireSameFields(message.questions[i], records[i]);
  for (size_t i = asked; i < records.size(); ++i) {
    const WireRecord& wire = message.answers[i - asked];
    RequireSameFields(wire, records[i]);
    REQUIRE(wire.ttl == records[i].ttl, "a record has the time to live that was put in");
    RequireSoundData(records[i].type, wire.data);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input script(data, size);
  CheckLabels(script);
  CheckPacket(script);
  return 0;
}
