// Takes the place of the multicast socket and of the interface behind it.
#include "fuzz/fake_socket.h"

#include <netinet/in.h>

#include "fuzz/check.h"
#include "mdns/socket.h"
#include "mdns/state.h"

FakeInterface fakeInterface;

bool WillUpdateHostIP() { return (fakeInterface.failures >> fakeInterface.calls % 8 & 1) == 0; }

uint32_t UpdateHostIP(uint32_t slot) {
  REQUIRE(slot == 0, "only the bridge's address is read");
  const bool found = WillUpdateHostIP();
  ++fakeInterface.calls;
  if (!found) return 0;
  responderState.interfaceAddress[slot].Set(htonl(fakeInterface.address));
  return 1;
}
