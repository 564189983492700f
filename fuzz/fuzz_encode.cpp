// Record encoding with any capacity, position and text.
#include <algorithm>
#include <string>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/record_model.h"
#include "records/encode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr int kMaxRecords = 24;
constexpr int32_t kCapacityLimit = 5000;
constexpr int32_t kTypes[] = {1, 12, 16, 33, 47, 255, 28, 257};

// The record as the encoder takes it.
MdnsRecord RecordOf(const ModelRecord& model) {
  MdnsRecord record = {};
  model.owner.copy(record.name, sizeof(record.name) - 1);
  record.type = model.type;
  record.cacheFlush = model.classTopBit ? 1 : 0;
  record.ttl = model.ttl;
  model.data.copy(record.rdata, sizeof(record.rdata) - 1);
  record.nsecNextOffset = model.nsecNextOffset;
  record.port = model.port;
  record.bitmapLength = static_cast<int32_t>(model.bitmap.size());
  model.bitmap.copy(reinterpret_cast<char*>(record.bitmap), sizeof(record.bitmap));
  return record;
}

ModelRecord ReadRecord(Input& script) {
  ModelRecord model;
  const uint8_t what = script.Byte();
  model.classTopBit = (what & 128) != 0;
  // A text is given as it stands or as a part that is repeated, to reach the limits of the fields.
  const std::string owner = script.Text();
  const std::string data = script.LongText();
  const unsigned repeats = (what & 64) != 0 ? script.Byte() : 1;
  for (unsigned i = 0; i < repeats; ++i) {
    if (model.owner.size() < 195) model.owner += owner;
    if (model.data.size() < 1023) model.data += data;
  }
  model.owner = model.owner.substr(0, 195);
  model.data = model.data.substr(0, 1023);
  model.type = (what & 32) != 0 ? static_cast<int32_t>(script.Long()) : kTypes[what % 8];
  model.ttl = script.Long();
  model.port = static_cast<int32_t>(script.Long());
  if (model.type == 47) {
    model.nsecNextOffset = script.Word();
    model.bitmap = script.Bytes(script.Byte() % 33);
  }
  return model;
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
  ModelBuffer model(capacity);
  REQUIRE(end == model.Labels(position, text.Text(), separator, static_cast<size_t>(maxLabel)),
          "labels end at the position that their lengths give");
  REQUIRE(buffer.Text() == model.Bytes(), "labels are written as far as the buffer reaches");
}

// One record anywhere.
void CheckRecord(const ModelRecord& record, int32_t capacity, int32_t position, bool isQuestion) {
  const ExactBytes buffer(std::string(static_cast<size_t>(capacity), '\0'));
  const int32_t end =
      EncodeRecord(buffer.Data(), capacity, position, RecordOf(record), isQuestion ? 1 : 0);
  ModelBuffer model(capacity);
  REQUIRE(end == model.Record(position, record, isQuestion),
          "a record ends at the position that its fields give");
  REQUIRE(buffer.Text() == model.Bytes(), "a record is written as far as the buffer reaches");
}

// A packet of records, one after the other, from the first to the last.
void CheckPacket(Input& script) {
  const int32_t capacity = 12 + script.Word() % kCapacityLimit;
  const int32_t start = script.Word();
  ModelPacket packet = {script.Byte(), {}, {}, {}};
  for (int i = 0; i < kMaxRecords && !script.IsEmpty(); ++i) {
    const uint8_t section = script.Byte();
    const ModelRecord record = ReadRecord(script);
    CheckRecord(record, capacity, start, section % 2 != 0);
    if (section % 4 == 3) {
      packet.questions.push_back(record);
    } else if (section % 4 == 2) {
      packet.authorities.push_back(record);
    } else {
      packet.answers.push_back(record);
    }
  }

  const ExactBytes buffer(std::string(static_cast<size_t>(capacity), '\0'));
  buffer.Data()[2] = packet.flags;
  buffer.Data()[5] = static_cast<uint8_t>(packet.questions.size());
  buffer.Data()[7] = static_cast<uint8_t>(packet.answers.size());
  buffer.Data()[9] = static_cast<uint8_t>(packet.authorities.size());
  int32_t length = 12;
  for (const auto* section : {&packet.questions, &packet.answers, &packet.authorities}) {
    for (const ModelRecord& record : *section) {
      length = EncodeRecord(buffer.Data(), capacity, length, RecordOf(record),
                            section == &packet.questions ? 1 : 0);
    }
  }
  ModelBuffer model(capacity);
  REQUIRE(length == model.Packet(packet), "a packet has the length that its records give");
  REQUIRE(buffer.Text() == model.Bytes(), "a packet has the bytes that its records give");
  if (model.IsWhole()) {
    RequireParsesBack(buffer.Text().substr(0, static_cast<size_t>(length)), packet);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input script(data, size);
  CheckLabels(script);
  CheckPacket(script);
  return 0;
}
