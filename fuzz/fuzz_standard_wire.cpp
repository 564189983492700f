// Messages into the standard responder's reader, held against a reader that shares nothing with it;
// and entries into its writer, read back by that other reader.
#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "standard/wire.h"
#include "tests/standard/packet.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr int kMaxEntries = 64;

std::string Text(const Name& name) {
  return LowerCase({reinterpret_cast<const char*>(name.bytes), name.length});
}

void RequireName(const Name& name) {
  REQUIRE(name.length >= 1, "a name has its root");
  size_t offset = 0;
  while (!NextLabel(name, offset).empty()) {
  }
  REQUIRE(offset + 1 == name.length, "a name ends where it says");
}

// Names within data are compared without regard to case, all else exactly.
std::string DataText(const ReceivedRecord& record) {
  std::string data(reinterpret_cast<const char*>(record.data), record.dataLength);
  size_t before = 0;
  if (record.type == kTypeSrv) before = kSrvTargetOffset;
  if (record.type != kTypePtr && record.type != kTypeSrv && record.type != kTypeNsec) return data;
  size_t end = before;
  while (data[end] != 0) end += size_t{1} + static_cast<uint8_t>(data[end]);
  return data.substr(0, before) + LowerCase(std::string_view(data).substr(before, end - before)) +
         data.substr(end);
}

void RequireSame(const Packet& packet, const ExactBytes& message) {
  WireReader reader = ReadMessage(message.Data(), message.Size());
  Question question;
  size_t questions = 0;
  for (; ReadQuestion(reader, question); ++questions) {
    REQUIRE(questions < packet.questions.size(), "as many questions as the message has");
    const PacketQuestion& other = packet.questions[questions];
    REQUIRE(Text(question.name) == other.name && question.type == other.type &&
                question.classBits == other.classBits,
            "a question reads the same");
  }
  REQUIRE(questions == packet.questions.size(), "all questions are read");
  const auto record = std::make_unique<ReceivedRecord>();
  size_t records = 0;
  for (; ReadRecord(reader, *record); ++records) {
    REQUIRE(records < packet.records.size(), "as many records as the message has");
    const PacketRecord& other = packet.records[records];
    REQUIRE(Text(record->name) == other.name && record->type == other.type &&
                record->classBits == other.classBits && record->ttl == other.ttl &&
                static_cast<size_t>(record->section) == static_cast<size_t>(other.section) + 1,
            "a record reads the same");
    REQUIRE(other.data.size() > kDataMax || DataText(*record) == other.data,
            "its data read the same");
  }
  REQUIRE(records == packet.records.size(), "all records are read");
}

void ReadOne(const std::string& bytes) {
  const ExactBytes message(bytes);
  const bool isWellFormed = IsWellFormed(message.Data(), message.Size());
  WireReader reader = ReadMessage(message.Data(), message.Size());
  const auto record = std::make_unique<ReceivedRecord>();
  while (ReadRecord(reader, *record)) {
    RequireName(record->name);
    const uint8_t* data = record->data;
    const bool isInside = data >= message.Data() && data <= message.Data() + message.Size() &&
                          record->dataLength <= size_t(message.Data() + message.Size() - data);
    REQUIRE(isInside || (data == record->buffer && record->dataLength <= kDataMax),
            "data are within the message or the buffer");
  }
  REQUIRE(isWellFormed == !reader.isMalformed, "a message is well-formed when all of it is read");
  Packet packet;
  if (!ReadPacket(message.Text(), packet).empty()) return;
  const size_t entries = packet.questions.size() + packet.records.size();
  REQUIRE(isWellFormed == (entries <= kEntriesMax), "what the other reader reads is well-formed");
  if (isWellFormed) RequireSame(packet, message);
}

Name ReadNameOf(Input& script) {
  Name name = RootName();
  const char* const labels[] = {"local", "_tcp", "_ipp", "Printer", "printer", "_sub", "host"};
  for (unsigned count = script.Byte() % 8; count > 0; --count) {
    const uint8_t which = script.Byte();
    const std::string label = which % 8 < 7 ? labels[which % 8] : script.Text();
    AppendLabel(name, label);
  }
  return name;
}

Record ReadRecordOf(Input& script) {
  const uint16_t types[] = {kTypeA, kTypePtr, kTypeTxt, kTypeAaaa, kTypeSrv, kTypeNsec};
  Record record = {};
  record.name = ReadNameOf(script);
  record.type = types[script.Byte() % 6];
  record.classBits = script.Word();
  record.ttl = script.Long();
  std::string data;
  if (record.type == kTypeA) data = std::string(4, '\1');
  if (record.type == kTypeAaaa) data = std::string(16, '\2');
  if (record.type == kTypeSrv) data = std::string(kSrvTargetOffset, '\3');
  if (record.type == kTypePtr || record.type == kTypeSrv || record.type == kTypeNsec) {
    const Name target = ReadNameOf(script);
    data.append(reinterpret_cast<const char*>(target.bytes), target.length);
  }
  if (record.type == kTypeNsec) data += std::string("\0\1\x40", 3);
  if (record.type == kTypeTxt) {
    const std::string string = script.Text();
    data = static_cast<char>(string.size()) + string;
  }
  record.dataLength = data.size();
  memcpy(record.data, data.data(), data.size());
  return record;
}

// What is written is there, and what does not fit leaves no trace.
void WriteSome(Input& script) {
  const size_t capacity = kHeaderSize + script.Word() % 2048;
  const ExactBytes block(std::string(capacity, '\xEE'));
  WireWriter writer = WriteMessage(block.Data(), capacity, script.Byte() % 2 == 0);
  Packet expected = {};
  const auto isRoomFor = [&](bool isWritten, size_t before) {
    REQUIRE(writer.length <= capacity, "a message stays within its block");
    REQUIRE(isWritten == (writer.length > before), "only what fits is written");
    return isWritten;
  };
  for (unsigned count = script.Byte() % 8; count > 0; --count) {
    const Name name = ReadNameOf(script);
    const uint16_t type = script.Word();
    const size_t before = writer.length;
    if (isRoomFor(WriteQuestion(writer, name, type, kClassIn), before)) {
      expected.questions.push_back({Text(name), type, kClassIn});
    }
  }
  unsigned section = 1;
  for (int i = 0; i < kMaxEntries && !script.IsEmpty(); ++i) {
    if (script.Byte() % 16 == 0 && section < 3) ++section;
    const Record record = ReadRecordOf(script);
    const size_t before = writer.length;
    if (!isRoomFor(WriteRecord(writer, static_cast<Section>(section), record), before)) continue;
    ReceivedRecord same = {};
    same.type = record.type;
    same.data = record.data;
    same.dataLength = record.dataLength;
    expected.records.push_back({static_cast<PacketSection>(section - 1), Text(record.name),
                                record.type, record.classBits, record.ttl, DataText(same), false});
    REQUIRE(AreDataEqual(record, record.data, record.dataLength), "data equal themselves");
  }
  const size_t length = FinishMessage(writer, 0x1234, kFlagResponse);
  REQUIRE(length == writer.length, "a message is as long as what was written");
  const ExactBytes message({reinterpret_cast<const char*>(block.Data()), length});
  Packet packet;
  const std::string wrong = ReadPacket(message.Text(), packet);
  REQUIRE(wrong.empty(), "what is written can be read");
  REQUIRE(packet.id == 0x1234 && packet.flags == kFlagResponse, "the header reads the same");
  REQUIRE(packet.questions.size() == expected.questions.size() &&
              packet.records.size() == expected.records.size(),
          "all that fitted is there");
  for (PacketRecord& record : packet.records) record.isDataCompressed = false;
  REQUIRE(
      WritePacket(packet) ==
          [&] {
            expected.id = packet.id;
            expected.flags = packet.flags;
            return WritePacket(expected);
          }(),
      "it reads the same");
  RequireSame(packet, message);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input script(data, size);
  if (script.Byte() % 4 == 0) {
    WriteSome(script);
  } else {
    ReadOne(script.Bytes(size));
  }
  return 0;
}
