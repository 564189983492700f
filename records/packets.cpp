// The packets of a service's registration and withdrawal.
#include "records/packets.h"

#include "base/log.h"
#include "base/service_kinds.h"
#include "base/text.h"
#include "records/sender.h"
#include "records/state.h"

namespace {

constexpr uint8_t kProbeQuestions = 2;
constexpr uint8_t kProbeAuthorities = 2;
constexpr uint8_t kGoodbyeAnswers = 1;
constexpr uint8_t kGoodbyeAnswersWithSubtype = 2;

void SendIfConnected(const Packet& packet) {
  if (responderState.connected[kBridgeSlot].Get() == 0) return;
  SendPacket(packet.bytes, packet.length, multicastSocket.Get(), responderState.mdnsDestination);
}

}  // namespace

void ComposeServiceProbe(Packet& packet, const ServiceRecords& service) {
  BeginPacket(packet, {kFlagsQuery, kProbeQuestions, 0, kProbeAuthorities});
  AddQuestion(packet, service.hostName, kTypeAny, true);
  AddQuestion(packet, service.instanceName, kTypeAny, true);
  AddAddress(packet, service.hostName, false, service.address);
  AddServer(packet, service.instanceName, false, service.port, service.hostName);
}

void ComposeServiceGoodbye(Packet& packet, const ServiceRecords& service) {
  BeginPacket(packet, {kFlagsResponse, 0,
                       service.hasSubtype ? kGoodbyeAnswersWithSubtype : kGoodbyeAnswers, 0});
  AddPointer(packet, service.typeName, kGoodbyeTtl, service.instanceName);
  if (service.hasSubtype) {
    AddPointer(packet, kUniversalSubtype, kGoodbyeTtl, service.instanceName);
  }
}

uint32_t PacketsComposeAdd(const char* deviceName, const char* serviceName, const char* serviceType,
                           const char* domain, const char* txt, int32_t txtLength, uint32_t port) {
  const HeapText hostName = JoinTexts({FormatHostName(deviceName, kDeviceNameMax).text});
  const HeapText instanceName =
      hostName == nullptr ? nullptr : JoinTexts({serviceName, ".", serviceType, domain});
  const HeapText typeName = instanceName == nullptr ? nullptr : JoinTexts({serviceType, domain});
  if (typeName == nullptr) {
    LogNoMemory();
    return 0;
  }

  const AddressText address = GetInterfaceAddress(kBridgeSlot);
  const ServiceRecords service = {hostName.get(),
                                  address.text,
                                  typeName.get(),
                                  instanceName.get(),
                                  txtLength != 0 && txt != nullptr ? txt : "",
                                  port,
                                  HasUniversalSubtype(serviceType)};
  uint8_t bytes[kPacketSize];
  Packet packet = {bytes, kPacketSize, 0, {}};
  ComposeServiceProbe(packet, service);
  SendIfConnected(packet);
  ComposeServiceResponse(packet, service);
  SendIfConnected(packet);
  return 1;
}

uint32_t PacketsComposeRemove(const char* serviceName, const char* serviceType,
                              const char* domain) {
  const HeapText instanceName = JoinTexts({serviceName, ".", serviceType, domain});
  const HeapText typeName = instanceName == nullptr ? nullptr : JoinTexts({serviceType, domain});
  if (typeName == nullptr) {
    LogNoMemory();
    return 0;
  }

  const ServiceRecords service = {
      "", "", typeName.get(), instanceName.get(), "", 0, HasUniversalSubtype(serviceType)};
  uint8_t bytes[kPacketSize];
  Packet packet = {bytes, kPacketSize, 0, {}};
  ComposeServiceGoodbye(packet, service);
  SendIfConnected(packet);
  return 1;
}
