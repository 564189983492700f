// Probing the host name on the link before it is used.
#include "mdns/probe.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "base/log.h"
#include "base/text.h"
#include "records/sender.h"

namespace {

constexpr unsigned kConflictPauseMicroseconds = 250000;
constexpr size_t kNumberSize = 12;

void SendProbe(const ProbeRecord& record) {
  uint8_t bytes[kPacketSize];
  Packet packet = {bytes, kPacketSize, 0, {}};
  ComposeHostProbe(packet, FieldText(record.name));
  SendPacket(packet.bytes, packet.length, record.socket, responderState.mdnsDestination);
}

// Listens until the name is settled or a stop is asked for. True when another host has it.
bool HearConflict(const ProbeRecord& record, in_addr_t ownAddress) {
  uint8_t buffer[kReceiveSize];
  for (uint32_t ignored = 0;; ++ignored) {
    sockaddr_in sender{};
    socklen_t senderSize = sizeof(sender);
    const ssize_t received = recvfrom(record.socket, buffer, sizeof(buffer), 0,
                                      reinterpret_cast<sockaddr*>(&sender), &senderSize);
    if (received < 1) {
      LogLine("[Bonjour] MDNS_CheckName: receive packet timeout");
      return false;
    }
    if (sender.sin_addr.s_addr != ownAddress &&
        IsNameConflict(MessageReader(buffer, static_cast<size_t>(received)), record.name)) {
      return true;
    }
    if (ignored == kIgnoredPacketsMax) {
      LogLine("[Bonjour] MDNS_CheckName: ignorePackets limits.");
      return false;
    }
    if (IsTerminating()) return false;
  }
}

// The base is the device name as it was when probing began: numbers replace one another.
void TakeNextName(ProbeRecord& record, int32_t number) {
  LogLine("[Bonjour] MDNS_CheckName: device name repeat");
  SetNumberedName(record.name, CurrentDeviceName().text, number);
  record.retry = 1;
}

}  // namespace

void ComposeHostProbe(Packet& packet, std::string_view name) {
  BeginPacket(packet, {kFlagsQuery, 1, 0, 0});
  AddQuestion(packet, FormatHostName(name, kDeviceNameMax).text, kTypeA, false);
}

// A label length beyond the name's field can't be compared with it and is no conflict; a label that
// the message cuts short isn't one either.
bool IsNameConflict(const MessageReader& message, const char (&name)[kDeviceNameSize]) {
  if (!message.Has(kHeaderSize)) return false;
  const size_t nameLength = FieldText(name).size();
  const size_t labelLength = message.Byte(kHeaderSize);
  const size_t compared = nameLength > labelLength ? nameLength : labelLength;
  return compared <= sizeof(name) &&
         message.Text(kHeaderSize + 1, compared) == std::string_view(name, compared);
}

void SetNumberedName(char (&name)[kDeviceNameSize], std::string_view deviceName, int32_t number) {
  char suffix[kNumberSize];
  snprintf(suffix, sizeof(suffix), "%d", static_cast<int>(number));
  if (deviceName.size() + strlen(suffix) + 1 >= kDeviceNameSize) return;
  memset(name, 0, sizeof(name));
  snprintf(name, sizeof(name), "%.*s-%s", static_cast<int>(deviceName.size()), deviceName.data(),
           suffix);
}

void* MDNS_CheckName(void* argument) {
  ProbeRecord& record = *static_cast<ProbeRecord*>(argument);
  const in_addr_t ownAddress = responderState.interfaceAddress[record.slot].Get();
  int32_t conflicts = 0;

  while (!IsTerminating()) {
    SendProbe(record);
    if (IsTerminating()) break;
    if (!HearConflict(record, ownAddress)) break;
    TakeNextName(record, ++conflicts);
    if (conflicts == kConflictNumberMax) conflicts = 0;
    usleep(kConflictPauseMicroseconds);
  }
  return nullptr;
}
