// Takes the place of the multicast socket and of the interface behind it.
#include "fuzz/fake_socket.h"

#include <netinet/in.h>

#include "fuzz/check.h"
#include "mdns/socket.h"
#include "mdns/state.h"

FakeInterface fakeInterface;

uint32_t UpdateHostIP(uint32_t slot) {
  REQUIRE(slot == 0, "only the bridge's address is read");
  const uint32_t call = fakeInterface.calls++;
  if ((fakeInterface.failures >> call % 8 & 1) != 0) return 0;
  responderState.interfaceAddress[slot].Set(htonl(fakeInterface.address));
  return 1;
}
