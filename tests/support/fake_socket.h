// Takes the place of the multicast socket's module: addresses and set-ups as the test wants them.
#pragma once

#include <cstdint>
#include <functional>

struct FakeSocketModule {
  std::function<uint32_t(uint32_t slot)> updateHostIP;  ///< UpdateHostIP; 1 without it
  std::function<uint32_t()> setup;                      ///< SocketSetup_For_Interface_N; 1 without
  std::function<void()> close;                          ///< CloseMulticastSocket
};

/// Set while no other thread runs.
extern FakeSocketModule fakeSocketModule;
