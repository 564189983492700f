// The one process-wide responder state.
#include "mdns/state.h"

ResponderState responderState{};
SharedWord<int32_t> multicastSocket{-1};

uint32_t GetBonjourInitStatus() { return responderState.initStatus.Get(); }

char* GetDeviceName(char* buffer, size_t size) {
  responderState.deviceName.Copy(buffer, size);
  return buffer;
}

void SetDeviceName(std::string_view name) { responderState.deviceName.Set(name); }

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
