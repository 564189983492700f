#include "tests/standard/packet.h"

namespace {

constexpr size_t kHeader = 12;
constexpr size_t kLongestName = 255;
constexpr size_t kLongestLabel = 63;
constexpr int kPointersMax = 127;
constexpr uint16_t kPtr = 12;
constexpr uint16_t kSrv = 33;
constexpr uint16_t kNsec = 47;
constexpr size_t kSrvNumbers = 6;

// Takes fields off the front of a message. The first thing that is wrong stays.
struct Cursor {
  std::string_view bytes;
  size_t offset;
  std::string wrong;

  void Fail(const char* what) {
    if (wrong.empty()) wrong = what;
  }
  uint32_t Number(size_t width) {
    uint32_t number = 0;
    for (size_t i = 0; i < width; ++i) {
      if (offset == bytes.size()) {
        Fail("the message ends within a number");
        return 0;
      }
      number = number << 8 | static_cast<uint8_t>(bytes[offset++]);
    }
    return number;
  }
};

// Reads a name, in its own case, that may not go on behind `end`.
std::string TakeName(Cursor& cursor, size_t end, bool& isCompressed) {
  std::string name;
  size_t at = cursor.offset;
  size_t before = at;  // a pointer leads to before the labels that it ends
  size_t next = 0;     // behind the first pointer
  int pointers = 0;
  for (;;) {
    if (at >= (next == 0 ? end : cursor.bytes.size())) {
      cursor.Fail("a name does not end");
      return name;
    }
    const auto length = static_cast<uint8_t>(cursor.bytes[at]);
    if (length >= 0xC0) {
      if (at + 2 > (next == 0 ? end : cursor.bytes.size())) {
        cursor.Fail("half a pointer");
        return name;
      }
      const size_t target = (length & 0x3FU) << 8 | static_cast<uint8_t>(cursor.bytes[at + 1]);
      if (target < kHeader || target >= before || ++pointers > kPointersMax) {
        cursor.Fail("a pointer that does not lead back, or too many");
        return name;
      }
      if (next == 0) next = at + 2;
      isCompressed = true;
      at = before = target;
      continue;
    }
    if (length > kLongestLabel || at + 1 + length > cursor.bytes.size()) {
      cursor.Fail("a label that is too long");
      return name;
    }
    name += cursor.bytes.substr(at, size_t{1} + length);
    at += size_t{1} + length;
    if (length == 0) break;
    if (name.size() >= kLongestName) {
      cursor.Fail("a name that is too long");
      return name;
    }
  }
  cursor.offset = next == 0 ? at : next;
  return name;
}

std::string TakeBytes(Cursor& cursor, size_t count) {
  std::string bytes;
  if (count > cursor.bytes.size() - cursor.offset) {
    cursor.Fail("the message ends within data");
    return bytes;
  }
  bytes = cursor.bytes.substr(cursor.offset, count);
  cursor.offset += count;
  return bytes;
}

void CheckBitmap(Cursor& cursor, std::string_view bitmap) {
  if (bitmap.empty()) return;
  const bool isWindow0 = bitmap.size() >= 3 && bitmap[0] == 0 &&
                         static_cast<uint8_t>(bitmap[1]) == bitmap.size() - 2 &&
                         bitmap.size() - 2 <= 32 && bitmap.back() != 0;
  if (!isWindow0) cursor.Fail("a bitmap of types that is none");
}

void CheckStrings(Cursor& cursor, std::string_view strings) {
  if (strings.empty()) cursor.Fail("a text record without a string");
  while (!strings.empty()) {
    const size_t length = static_cast<uint8_t>(strings[0]);
    if (length >= strings.size()) {
      cursor.Fail("a text record whose last string is cut");
      return;
    }
    strings.remove_prefix(1 + length);
  }
}

void TakeData(Cursor& cursor, PacketRecord& record) {
  const size_t length = cursor.Number(2);
  const size_t end = cursor.offset + length;
  if (end > cursor.bytes.size()) {
    cursor.Fail("the message ends within data");
    return;
  }
  if (record.type == kPtr || record.type == kSrv || record.type == kNsec) {
    if (record.type == kSrv) record.data = TakeBytes(cursor, kSrvNumbers);
    const std::string name = TakeName(cursor, end, record.isDataCompressed);
    if (!cursor.wrong.empty()) return;
    if (record.section == PacketSection::kAuthority) record.proposed = record.data + name;
    record.data += LowerCase(name);
    const std::string rest = TakeBytes(cursor, end - cursor.offset);
    if (record.type == kNsec) {
      CheckBitmap(cursor, rest);
    } else if (!rest.empty()) {
      cursor.Fail("something behind the name in a record's data");
    }
    record.data += rest;
    if (record.section == PacketSection::kAuthority) record.proposed += rest;
    return;
  }
  record.data = TakeBytes(cursor, length);
  if (record.section == PacketSection::kAuthority) record.proposed = record.data;
  if (record.type == 1 && length != 4) cursor.Fail("an IPv4 address that is none");
  if (record.type == 28 && length != 16) cursor.Fail("an IPv6 address that is none");
  if (record.type == 16) CheckStrings(cursor, record.data);
}

PacketRecord TakeRecord(Cursor& cursor, PacketSection section) {
  bool isCompressed = false;
  PacketRecord record = {};
  record.section = section;
  record.name = LowerCase(TakeName(cursor, cursor.bytes.size(), isCompressed));
  record.type = static_cast<uint16_t>(cursor.Number(2));
  record.classBits = static_cast<uint16_t>(cursor.Number(2));
  record.ttl = cursor.Number(4);
  if (cursor.wrong.empty()) TakeData(cursor, record);
  return record;
}

std::string TypeInWords(uint16_t type) {
  switch (type) {
    case 1:
      return "A";
    case kPtr:
      return "PTR";
    case 16:
      return "TXT";
    case 28:
      return "AAAA";
    case kSrv:
      return "SRV";
    case kNsec:
      return "NSEC";
    case 255:
      return "ANY";
    default:
      return std::to_string(type);
  }
}

std::string DataInWords(const PacketRecord& record) {
  if (record.type == kPtr) return " " + NameInWords(record.data);
  if (record.type == kSrv && record.data.size() > kSrvNumbers) {
    return " " + NameInWords(std::string_view(record.data).substr(kSrvNumbers));
  }
  if (record.type != 1 && record.type != 28) return {};
  std::string text = " ";
  for (const char c : record.data) text += std::to_string(static_cast<uint8_t>(c)) + ".";
  return text;
}

}  // namespace

std::string LowerCase(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

void Append16(std::string& bytes, uint32_t value) {
  bytes += static_cast<char>(value >> 8 & 0xFF);
  bytes += static_cast<char>(value & 0xFF);
}

void Append32(std::string& bytes, uint32_t value) {
  Append16(bytes, value >> 16);
  Append16(bytes, value);
}

std::string ReadPacket(std::string_view bytes, Packet& packet) {
  packet = {};
  Cursor cursor = {bytes, 0, {}};
  packet.id = static_cast<uint16_t>(cursor.Number(2));
  packet.flags = static_cast<uint16_t>(cursor.Number(2));
  uint32_t counts[4];
  for (uint32_t& count : counts) count = cursor.Number(2);
  for (uint32_t i = 0; cursor.wrong.empty() && i < counts[0]; ++i) {
    bool isCompressed = false;
    PacketQuestion question = {};
    question.name = LowerCase(TakeName(cursor, bytes.size(), isCompressed));
    question.type = static_cast<uint16_t>(cursor.Number(2));
    question.classBits = static_cast<uint16_t>(cursor.Number(2));
    packet.questions.push_back(std::move(question));
  }
  for (size_t section = 1; section < 4; ++section) {
    for (uint32_t i = 0; cursor.wrong.empty() && i < counts[section]; ++i) {
      packet.records.push_back(TakeRecord(cursor, static_cast<PacketSection>(section - 1)));
    }
  }
  if (cursor.offset != bytes.size()) cursor.Fail("bytes behind the last record");
  return cursor.wrong;
}

std::string PacketName(const std::vector<std::string_view>& labels) {
  std::string name;
  for (const std::string_view label : labels) {
    name += static_cast<char>(label.size());
    name += LowerCase(label);
  }
  name += '\0';
  return name;
}

std::string WritePacket(const Packet& packet) {
  uint32_t counts[4] = {static_cast<uint32_t>(packet.questions.size()), 0, 0, 0};
  for (const PacketRecord& record : packet.records) {
    ++counts[1 + static_cast<size_t>(record.section)];
  }
  std::string bytes;
  Append16(bytes, packet.id);
  Append16(bytes, packet.flags);
  for (const uint32_t count : counts) Append16(bytes, count);
  for (const PacketQuestion& question : packet.questions) {
    bytes += question.name;
    Append16(bytes, question.type);
    Append16(bytes, question.classBits);
  }
  for (size_t section = 0; section < 3; ++section) {
    for (const PacketRecord& record : packet.records) {
      if (static_cast<size_t>(record.section) != section) continue;
      bytes += record.name;
      Append16(bytes, record.type);
      Append16(bytes, record.classBits);
      Append32(bytes, record.ttl);
      Append16(bytes, static_cast<uint32_t>(record.data.size()));
      bytes += record.data;
    }
  }
  return bytes;
}

std::string NameInWords(std::string_view name) {
  std::string text;
  for (size_t at = 0; at < name.size() && name[at] != 0;) {
    const size_t length = static_cast<uint8_t>(name[at]);
    if (!text.empty()) text += '.';
    text += name.substr(at + 1, length);
    at += 1 + length;
  }
  return text;
}

std::string PacketInWords(const Packet& packet) {
  std::string text;
  for (const PacketQuestion& question : packet.questions) {
    text += " ?" + NameInWords(question.name) + " " + TypeInWords(question.type);
    if ((question.classBits & 0x8000) != 0) text += " QU";
  }
  for (const PacketRecord& record : packet.records) {
    text += " ";
    text += "=!+"[static_cast<size_t>(record.section)];
    text += NameInWords(record.name) + " " + TypeInWords(record.type) + DataInWords(record);
    if (record.ttl == 0) text += " 0";
  }
  return text;
}
