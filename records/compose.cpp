// Packets under construction.
#include "records/compose.h"

#include <cstring>

#include "base/service_kinds.h"
#include "base/text.h"

namespace {

constexpr uint8_t kServiceAnswers = 4;
constexpr uint8_t kServiceAnswersWithSubtype = 5;

// The record is zero-filled, so the text's terminator is there.
void SetText(char* field, size_t limit, std::string_view text) {
  CopyCharacters(field, {text.data(), text.size() < limit ? text.size() : limit});
}

void BeginRecord(Packet& packet, std::string_view owner, int32_t type) {
  packet.record = MdnsRecord{};
  SetText(packet.record.name, kRecordNameMax, owner);
  packet.record.type = type;
}

void SetData(Packet& packet, uint32_t ttl, std::string_view text) {
  packet.record.ttl = ttl;
  SetText(packet.record.rdata, kRecordDataMax, text);
}

void EndRecord(Packet& packet, bool questionOnly) {
  packet.length = EncodeRecord(packet.bytes, packet.capacity, packet.length, packet.record,
                               questionOnly ? 1 : 0);
}

}  // namespace

HostName FormatHostName(std::string_view deviceName, size_t limit) {
  HostName name = {};
  const size_t length = deviceName.size() < limit ? deviceName.size() : limit;
  CopyCharacters(name.text, {deviceName.data(), length});
  memcpy(name.text + length, kLocalDomain, sizeof(kLocalDomain));
  return name;
}

void BeginPacket(Packet& packet, const PacketHeader& header) {
  memset(packet.bytes, 0, static_cast<size_t>(packet.capacity));
  packet.bytes[kFlagsOffset] = header.flags;
  packet.bytes[kQuestionCountOffset + 1] = header.questions;
  packet.bytes[kAnswerCountOffset + 1] = header.answers;
  packet.bytes[kAuthorityCountOffset + 1] = header.authorities;
  packet.length = kHeaderSize;
}

void AddQuestion(Packet& packet, std::string_view owner, int32_t type, bool unicastResponse) {
  BeginRecord(packet, owner, type);
  packet.record.cacheFlush = unicastResponse;
  EndRecord(packet, true);
}

void AddAddress(Packet& packet, std::string_view owner, bool cacheFlush, std::string_view address) {
  BeginRecord(packet, owner, kTypeA);
  packet.record.cacheFlush = cacheFlush;
  SetData(packet, kHostTtl, address);
  EndRecord(packet, false);
}

void AddPointer(Packet& packet, std::string_view owner, uint32_t ttl, std::string_view target) {
  BeginRecord(packet, owner, kTypePtr);
  SetData(packet, ttl, target);
  EndRecord(packet, false);
}

void AddServer(Packet& packet, std::string_view owner, bool cacheFlush, uint32_t port,
               std::string_view target) {
  BeginRecord(packet, owner, kTypeSrv);
  packet.record.cacheFlush = cacheFlush;
  packet.record.port = static_cast<int32_t>(port);
  SetData(packet, kHostTtl, target);
  EndRecord(packet, false);
}

void AddText(Packet& packet, std::string_view owner, std::string_view text) {
  BeginRecord(packet, owner, kTypeTxt);
  packet.record.cacheFlush = true;
  SetData(packet, kServiceTtl, text);
  EndRecord(packet, false);
}

void ComposeServiceResponse(Packet& packet, const ServiceRecords& service) {
  BeginPacket(packet, {kFlagsResponse, 0,
                       service.hasSubtype ? kServiceAnswersWithSubtype : kServiceAnswers, 0});
  AddAddress(packet, service.hostName, true, service.address);
  AddPointer(packet, service.typeName, kServiceTtl, service.instanceName);
  AddServer(packet, service.instanceName, true, service.port, service.hostName);
  AddText(packet, service.instanceName, service.txt);
  if (service.hasSubtype) {
    AddPointer(packet, kUniversalSubtype, kServiceTtl, service.instanceName);
  }
}
