#include "tests/support/fake_socket.h"

#include "mdns/socket.h"

FakeSocketRoom fakeSocketRoom;

uint32_t UpdateHostIP(uint32_t slot) {
  return fakeSocketRoom.updateHostIP ? fakeSocketRoom.updateHostIP(slot) : 1;
}

uint32_t SocketSetup_For_Interface_N() { return fakeSocketRoom.setup ? fakeSocketRoom.setup() : 1; }

void CloseMulticastSocket() {
  if (fakeSocketRoom.close) fakeSocketRoom.close();
}
