#include "tests/support/fake_socket.h"

#include "mdns/socket.h"

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
