// The answering loop.
#include "mdns/answer.h"

#include <sys/socket.h>

#include <cstring>

#include "base/log.h"
#include "base/service_kinds.h"
#include "base/text.h"
#include "mdns/question.h"
#include "mdns/socket.h"
#include "records/registry.h"
#include "records/sender.h"

namespace {

// One question that is being answered.
struct Query {
  size_t received;   // bytes of the message
  in_addr_t sender;  // who asked
  int32_t socket;    // where the answer leaves
};

// The texts of one service's answer, copied from its entry; they free themselves.
struct ServiceTexts {
  HeapText instanceName;
  HeapText typeName;
  HeapText txt;  // null when the service has none
};

void LogQuery(const AnsweringState& state, const Query& query, const char* asked) {
  LogLine({"[Bonjour] answer(", GetInterfaceAddress(state.slot).text, ") query ", asked, " from ",
           FormatAddress(query.sender).text, " (",
           FormatNumber(static_cast<int32_t>(query.received)).text, ")"});
}

bool RefreshAddress(uint32_t slot) {
  if (UpdateHostIP(slot) != 0) return true;
  LogUpdateHostIPError("MDNS_Answer");
  return false;
}

void Send(const AnsweringState& state, int32_t socket) {
  SendPacket(state.packet.bytes, state.packet.length, socket, responderState.mdnsDestination);
}

void AnswerHostName(AnsweringState& state, const Query& query) {
  LogQuery(state, query, "target");
  if (!RefreshAddress(state.slot)) return;
  BeginPacket(state.packet, {kFlagsResponse, 0, 1, 0});
  // Without the cache-flush bit, unlike the A record of a service's answer: hosts on the link know
  // the two so (docs/behaviour.md).
  AddAddress(state.packet, state.hostName.text, false, GetInterfaceAddress(state.slot).text);
  Send(state, query.socket);
}

bool CopyServiceTexts(const ServiceEntry& entry, ServiceTexts& texts) {
  texts.instanceName = JoinTexts({entry.serviceName, ".", entry.serviceType, entry.serviceDomain});
  if (texts.instanceName == nullptr) return false;
  texts.typeName = JoinTexts({entry.serviceType, entry.serviceDomain});
  if (texts.typeName == nullptr) return false;
  if (entry.txtLength <= 0) return true;

  const auto length = static_cast<size_t>(entry.txtLength);
  texts.txt = NewText(length);
  if (texts.txt == nullptr) return false;
  // A service may be registered with a length and no text: its text is empty.
  if (entry.txt != nullptr) memcpy(texts.txt.get(), entry.txt, strnlen(entry.txt, length));
  return true;
}

void AnswerService(AnsweringState& state, const Query& query, const ServiceEntry& entry,
                   bool hasSubtype) {
  ServiceTexts texts;
  if (!CopyServiceTexts(entry, texts)) {
    LogNoMemory();
    return;
  }
  if (!RefreshAddress(state.slot)) return;

  const AddressText address = GetInterfaceAddress(state.slot);
  const std::string_view txt = texts.txt != nullptr ? texts.txt.get() : "";
  ComposeServiceResponse(state.packet, {state.hostName.text, address.text, texts.typeName.get(),
                                        texts.instanceName.get(), txt, entry.port, hasSubtype});
  Send(state, query.socket);
}

void ScanServices(AnsweringState& state, const Query& query) {
  const MessageReader message(state.receiveBuffer, query.received);
  const RegistryLock lock;
  for (const ServiceEntry* entry = responderState.registryHead; entry != nullptr;
       entry = entry->next) {
    const char* dot = strchr(entry->serviceType, '.');
    if (dot == nullptr) continue;
    const HeapText shortLabel = JoinTexts(
        {std::string_view(entry->serviceType, static_cast<size_t>(dot - entry->serviceType))});
    if (shortLabel == nullptr) {
      LogNoMemory();
      return;
    }
    if (!AsksForService(message, shortLabel.get(), FieldText(entry->serviceName))) continue;

    LogQuery(state, query, shortLabel.get());
    const std::string_view label = shortLabel.get();
    if (IsPrinterLabel(label)) AnswerService(state, query, *entry, label == kIppService.Label());
  }
}

}  // namespace

void StartAnswering(AnsweringState& state, uint32_t slot) {
  state.slot = slot;
  state.ownAddress = responderState.interfaceAddress[slot].Get();
  state.deviceName = CurrentDeviceName();
  state.hostName = FormatHostName(state.deviceName.text, kHostLabelMax);
  memset(state.receiveBuffer, 0, sizeof(state.receiveBuffer));
  state.packet.bytes = state.packetBytes;
  state.packet.capacity = kAnswerSize;
}

void AnswerMessage(AnsweringState& state, size_t received, const sockaddr_in& sender,
                   int32_t socket) {
  if (sender.sin_addr.s_addr == state.ownAddress) return;
  // The host-name test sees the whole buffer, leftovers included; the service scan only the
  // message.
  const MessageReader buffer(state.receiveBuffer, sizeof(state.receiveBuffer));
  if (buffer.Byte(kFlagsOffset) != kFlagsQuery) return;

  const Query query = {received, sender.sin_addr.s_addr, socket};
  if (AsksForHostName(buffer, FieldText(state.deviceName.text))) {
    if (HostQuestionType(buffer) == kTypeA) AnswerHostName(state, query);
  } else {
    ScanServices(state, query);
  }
}

void* MDNS_Answer(void* argument) {
  const AnswerStartRecord& start = *static_cast<AnswerStartRecord*>(argument);
  AnsweringState state;
  StartAnswering(state, start.slot);

  while (!IsTerminating()) {
    const int32_t socket = start.socket;
    sockaddr_in sender{};
    socklen_t senderSize = sizeof(sender);
    const ssize_t received = recvfrom(socket, state.receiveBuffer, sizeof(state.receiveBuffer), 0,
                                      reinterpret_cast<sockaddr*>(&sender), &senderSize);
    if (received > 0) AnswerMessage(state, static_cast<size_t>(received), sender, socket);
  }
  return nullptr;
}
