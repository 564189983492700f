// A network of the test's own: nothing that happens in it is seen outside, and it is gone with the
// test's process.
#pragma once

#include <net/if.h>
#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "base/descriptor.h"
#include "tests/support/bytes.h"

/// A member of a fixture that moves the calling thread, and the threads it starts, into a new
/// network namespace before the members after it are made. The loopback interface is up.
struct OwnNetwork {
  OwnNetwork();
};

/// Ends the process, with the text of errno behind `what`, unless that was `good`.
void Require(bool good, const char* what);
/// A request about the interface, and the ioctl(2) that hands one over.
ifreq InterfaceRequest(const char* name);
void ControlInterface(unsigned long operation, void* argument, const char* what);

/// Makes a bridge without an address; it is down.
void AddBridge(const char* name);
/// Takes a bridge away; it must be down.
void RemoveBridge(const char* name);
/// Gives the interface a MAC address.
void SetMac(const char* name, const uint8_t (&mac)[6]);
/// Gives the interface an IPv4 address in dotted form, with the netmask of its class.
void SetAddress(const char* name, const char* address);
/// Sets the interface up or down.
void SetInterfaceUp(const char* name, bool up);

/// The IPv4 socket address of a dotted address and a port.
sockaddr_in SocketAddress(const char* dotted, uint16_t port);

/// A UDP socket bound to the address, with a free port when `port` is 0.
class UdpSocket {
 public:
  explicit UdpSocket(const char* dotted, uint16_t port = 0);
  int Get() const { return descriptor.Get(); }
  /// Where it is bound.
  sockaddr_in Name() const;
  /// Receives give up after this long instead of ten seconds.
  void SetReceiveTimeout(int milliseconds) const;
  void Send(std::span<const uint8_t> bytes, const sockaddr_in& destination) const;
  /// The next datagram, or nothing when none came in time.
  std::optional<Bytes> Receive() const;
  /// True when no datagram waits.
  bool HasNoPacket() const;

 private:
  Descriptor descriptor;
};
