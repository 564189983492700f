// In place of mdns/socket: addresses and set-ups as the test wants them. Included once in a
// program.
#pragma once

#include <cstdint>
#include <functional>

#include "mdns/socket.h"

/// What each operation does; without it nothing, with the result 1. Set while no other thread runs.
struct FakeSocketModule {
  std::function<uint32_t(uint32_t slot)> updateHostIP;
  std::function<uint32_t()> setup;
  std::function<void()> close;
};

FakeSocketModule fakeSocketModule;

uint32_t UpdateHostIP(uint32_t slot) {
  return fakeSocketModule.updateHostIP ? fakeSocketModule.updateHostIP(slot) : 1;
}

uint32_t SocketSetup_For_Interface_N() {
  return fakeSocketModule.setup ? fakeSocketModule.setup() : 1;
}

void CloseMulticastSocket() {
  if (fakeSocketModule.close) fakeSocketModule.close();
}
