// What the packets should be.
#include "fuzz/record_model.h"

#include <arpa/inet.h>

#include <algorithm>

#include "fuzz/check.h"

namespace {

// Record types and the composers' limits, written out: the names in the code may change.
constexpr int32_t kA = 1;
constexpr int32_t kPtr = 12;
constexpr int32_t kTxt = 16;
constexpr int32_t kSrv = 33;
constexpr int32_t kNsec = 47;
constexpr int32_t kAny = 255;
constexpr size_t kOwnerLimit = 192;
constexpr size_t kDataLimit = 1023;
constexpr size_t kNameLabelLimit = 64;
constexpr size_t kTxtStringLimit = 128;

const std::string kSubtypeName = "_universal._sub._ipp._tcp.local";

std::string BigEndian(uint32_t value, size_t width) {
  std::string bytes;
  for (size_t i = width; i > 0; --i) {
    bytes.push_back(static_cast<char>(value >> (8 * (i - 1)) & 0xFF));
  }
  return bytes;
}

ModelRecord Record(const std::string& owner, int32_t type, bool topBit, uint32_t ttl,
                   const std::string& data) {
  ModelRecord record;
  record.owner = owner.substr(0, kOwnerLimit);
  record.type = type;
  record.classTopBit = topBit;
  record.ttl = ttl;
  record.data = data.substr(0, kDataLimit);
  return record;
}

ModelRecord Server(const ModelService& service, bool topBit) {
  ModelRecord record = Record(service.name + "." + service.type + service.domain, kSrv, topBit, 120,
                              service.hostName);
  record.port = static_cast<int32_t>(service.port);
  return record;
}

std::string AddressBytes(const std::string& text) {
  const in_addr_t address = inet_addr(text.c_str());
  return {reinterpret_cast<const char*>(&address), sizeof(address)};
}

void RequireSameQuestion(const WireRecord& wire, const ModelRecord& model) {
  REQUIRE(wire.name == SplitText(model.owner, '.', kNameLabelLimit),
          "a record has the owner name that was put in");
  REQUIRE(wire.type == (model.type & 0xFF), "a record has the type that was put in");
  REQUIRE(wire.recordClass == (model.classTopBit ? 0x8001 : 0x0001),
          "a record has the class that was put in");
}

void RequireSameName(std::string_view bytes, size_t offset, const ModelRecord& model) {
  Labels name;
  REQUIRE(WalkName(bytes, offset, name) && offset == bytes.size(), "a target name is whole");
  REQUIRE(name == SplitText(model.data, '.', kNameLabelLimit),
          "a record has the target that was put in");
}

void RequireSameRecord(const WireRecord& wire, const ModelRecord& model) {
  RequireSameQuestion(wire, model);
  REQUIRE(wire.ttl == model.ttl, "a record has the time to live that was put in");
  Labels strings;
  switch (model.type) {
    case kA:
      REQUIRE(wire.data == AddressBytes(model.data), "an A record has the address that was put in");
      break;
    case kPtr:
      RequireSameName(wire.data, 0, model);
      break;
    case kTxt:
      REQUIRE(WalkStrings(wire.data, strings), "the strings of a TXT record are whole");
      REQUIRE(strings == SplitText(model.data, '\n', kTxtStringLimit),
              "a TXT record has the strings that were put in");
      break;
    case kSrv:
      REQUIRE(wire.data.substr(0, 6) ==
                  BigEndian(0, 4) + BigEndian(static_cast<uint32_t>(model.port), 2),
              "a SRV record has priority 0, weight 0 and the port that was put in");
      RequireSameName(wire.data, 6, model);
      break;
    case kNsec:
      REQUIRE(wire.data == BigEndian(0xC000 | static_cast<uint32_t>(model.nsecNextOffset), 2) +
                               BigEndian(static_cast<uint32_t>(model.bitmap.size()), 2) +
                               model.bitmap,
              "an NSEC record has the pointer and the bitmap that were put in");
      break;
    default:
      REQUIRE(wire.data.empty(), "a record of another type has no data");
  }
}

void RequireSameRecords(const std::vector<WireRecord>& wire,
                        const std::vector<ModelRecord>& model) {
  REQUIRE(wire.size() == model.size(), "a section has as many records as were put in");
  for (size_t i = 0; i < wire.size(); ++i) RequireSameRecord(wire[i], model[i]);
}

}  // namespace

ModelPacket HostProbe(const std::string& name) {
  return {0x00, {Record(name + ".local", kA, false, 0, "")}, {}, {}};
}

ModelPacket HostAnswer(const std::string& hostName, const std::string& address) {
  return {0x84, {}, {Record(hostName, kA, false, 120, address)}, {}};
}

ModelPacket ServiceProbe(const ModelService& service) {
  const std::string instance = service.name + "." + service.type + service.domain;
  return {0x00,
          {Record(service.hostName, kAny, true, 0, ""), Record(instance, kAny, true, 0, "")},
          {},
          {Record(service.hostName, kA, false, 120, service.address), Server(service, false)}};
}

ModelPacket ServiceResponse(const ModelService& service, bool hasSubtype) {
  const std::string instance = service.name + "." + service.type + service.domain;
  ModelPacket packet = {0x84,
                        {},
                        {Record(service.hostName, kA, true, 120, service.address),
                         Record(service.type + service.domain, kPtr, false, 4500, instance),
                         Server(service, true), Record(instance, kTxt, true, 4500, service.txt)},
                        {}};
  if (hasSubtype) packet.answers.push_back(Record(kSubtypeName, kPtr, false, 4500, instance));
  return packet;
}

ModelPacket ServiceGoodbye(const ModelService& service, bool hasSubtype) {
  const std::string instance = service.name + "." + service.type + service.domain;
  ModelPacket packet = {
      0x84, {}, {Record(service.type + service.domain, kPtr, false, 0, instance)}, {}};
  if (hasSubtype) packet.answers.push_back(Record(kSubtypeName, kPtr, false, 0, instance));
  return packet;
}

Labels SplitText(std::string_view text, char separator, size_t maxLabel) {
  Labels labels;
  std::string label;
  for (const char c : text) {
    if (label.size() == maxLabel || c == separator) {
      if (!label.empty()) labels.push_back(label);
      label.clear();
    } else {
      label.push_back(c);
    }
  }
  if (!label.empty()) labels.push_back(label);
  return labels;
}

void ModelBuffer::Field(int32_t position, std::string_view field) {
  const size_t start = static_cast<size_t>(position);
  if (start + field.size() > bytes.size()) {
    isCut = true;
    return;
  }
  bytes.replace(start, field.size(), field);
}

// A length byte that does not fit is not even counted.
int32_t ModelBuffer::Strings(int32_t position, const ::Labels& strings) {
  for (const std::string& string : strings) {
    if (static_cast<size_t>(position) < bytes.size()) {
      Field(position++, BigEndian(static_cast<uint32_t>(string.size()), 1));
    }
    position = Characters(position, string);
  }
  return position;
}

// As many as fit.
int32_t ModelBuffer::Characters(int32_t position, const std::string& characters) {
  const size_t start = std::min(static_cast<size_t>(position), bytes.size());
  const std::string fitting = characters.substr(0, bytes.size() - start);
  bytes.replace(start, fitting.size(), fitting);
  isCut = isCut || fitting.size() < characters.size();
  return position + static_cast<int32_t>(characters.size());
}

// The same goes for the zero byte.
int32_t ModelBuffer::Labels(int32_t position, std::string_view text, char separator,
                            size_t maxLabel) {
  position = Strings(position, SplitText(text, separator, maxLabel));
  const std::string_view end("\0", 1);
  Field(position, end);
  return static_cast<size_t>(position) < bytes.size() ? position + 1 : position;
}

int32_t ModelBuffer::Record(int32_t position, const ModelRecord& record, bool questionOnly) {
  const int32_t n = Labels(position, record.owner, '.', kNameLabelLimit);
  Field(n + 1, BigEndian(static_cast<uint32_t>(record.type), 1));
  Field(n + 2, BigEndian(record.classTopBit ? 0x8001 : 0x0001, 2));
  if (questionOnly) return n + 4;

  Field(n + 4, BigEndian(record.ttl, 4));
  int32_t end = n + 10;
  switch (record.type) {
    case kA:
      Field(n + 10, AddressBytes(record.data));
      end = n + 14;
      break;
    case kPtr:
      end = Labels(n + 10, record.data, '.', kNameLabelLimit);
      break;
    case kTxt:
      end = Strings(n + 10, SplitText(record.data, '\n', kTxtStringLimit));
      break;
    case kSrv:
      Field(n + 14, BigEndian(static_cast<uint32_t>(record.port), 2));
      end = Labels(n + 16, record.data, '.', kNameLabelLimit);
      break;
    case kNsec:
      Field(n + 10, BigEndian(0xC000 | static_cast<uint32_t>(record.nsecNextOffset), 2));
      Field(n + 12, BigEndian(static_cast<uint32_t>(record.bitmap.size()), 2));
      end = Characters(n + 14, record.bitmap);
      break;
    default:
      break;
  }
  Field(n + 8, BigEndian(static_cast<uint32_t>(end - (n + 10)), 2));
  return end;
}

int32_t ModelBuffer::Packet(const ModelPacket& packet) {
  Field(2, BigEndian(packet.flags, 1));
  Field(4, BigEndian(static_cast<uint32_t>(packet.questions.size()), 2));
  Field(6, BigEndian(static_cast<uint32_t>(packet.answers.size()), 2));
  Field(8, BigEndian(static_cast<uint32_t>(packet.authorities.size()), 2));
  int32_t position = 12;
  for (const ModelRecord& record : packet.questions) position = Record(position, record, true);
  for (const ModelRecord& record : packet.answers) position = Record(position, record, false);
  for (const ModelRecord& record : packet.authorities) position = Record(position, record, false);
  return position;
}

void RequireParsesBack(std::string_view packet, const ModelPacket& model) {
  WireMessage message;
  REQUIRE(WalkMessage(packet, message), "a packet parses to its last byte");
  REQUIRE(message.id == 0, "a packet has the ID 0");
  REQUIRE(message.flags == model.flags << 8, "a packet has the flags of its kind");
  REQUIRE(message.questions.size() == model.questions.size(),
          "a packet has as many questions as were put in");
  for (size_t i = 0; i < message.questions.size(); ++i) {
    RequireSameQuestion(message.questions[i], model.questions[i]);
  }
  RequireSameRecords(message.answers, model.answers);
  RequireSameRecords(message.authorities, model.authorities);
  REQUIRE(message.additionals.empty(), "a packet has no additional records");
}
