// What the kernel says of a network interface.
#pragma once

#include <net/if.h>
#include <netinet/in.h>

#include <cstdint>
#include <string_view>

#include "base/descriptor.h"
#include "base/responder.h"

/// Asks the kernel about one interface, with a control socket that is open for as long as the
/// object lives. Each request returns false, with errno set and its output as it was, when it is
/// refused.
class InterfaceQuery {
 public:
  /// Opens the control socket. `name` is cut to the length that an interface's name may have.
  explicit InterfaceQuery(std::string_view name);

  /// False when there is no control socket. Nothing may be asked then.
  bool IsOpen() const { return control.IsOpen(); }
  /// Asks for the MAC address.
  bool ReadMac(uint8_t (&mac)[kMacSize]);
  /// Asks for the flags, which nobody looks at: the interface exists, up or down.
  bool Exists();
  /// Asks for the IPv4 address, in network byte order.
  bool ReadAddress(in_addr_t& address);

 private:
  Descriptor control;
  ifreq request{};
};
