// The one process-wide responder state.
#include "mdns/state.h"

#include <charconv>
#include <cstring>

ResponderState responderState{};
SharedWord<int32_t> multicastSocket{-1};
Gate multicastSocketUsers;

uint32_t GetBonjourInitStatus() { return responderState.initStatus.Get(); }

char* GetDeviceName(char* buffer, size_t size) {
  responderState.deviceName.Copy(buffer, size);
  return buffer;
}

void SetDeviceName(std::string_view name) { responderState.deviceName.Set(name); }

AddressText FormatAddress(in_addr_t address) {
  AddressText dotted{};
  if (address == INADDR_NONE) return dotted;
  uint8_t bytes[sizeof(address)];
  memcpy(bytes, &address, sizeof(address));
  char* end = dotted.text;
  for (const uint8_t byte : bytes) {
    if (end != dotted.text) *end++ = '.';
    end = std::to_chars(end, dotted.text + sizeof(dotted.text), byte).ptr;
  }
  return dotted;
}

AddressText GetInterfaceAddress(uint32_t slot) {
  return FormatAddress(responderState.interfaceAddress[slot].Get());
}

bool IsAnyInterfaceConnected() {
  uint32_t connected = 0;
  for (const SharedFlag& flag : responderState.connected) connected += flag.Get();
  return connected > 0;
}

void SetNotifyFlag() { responderState.notifyFlag.Set(1); }

void SetWaitFlag() { responderState.waitFlag.Set(1); }

void ReleaseWaiters() {
  responderState.waitFlag.Set(0);
  pthread_cond_broadcast(&responderState.stateCond);
}
