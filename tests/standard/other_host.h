// Another host on the bridge, as the tests of sockets see it.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "base/descriptor.h"
#include "tests/support/bytes.h"

/// The far end of a wire that is plugged into a bridge.
class OtherHost {
 public:
  /// Makes a port on the bridge, which is up; packets pass from then on.
  explicit OtherHost(const char* bridge);
  /// Puts a UDP datagram to the multicast DNS group and port on the wire, as another host would.
  void SendMulticast(const char* source, std::span<const uint8_t> payload) const;
  /// The UDP payload of the next multicast DNS packet from the bridge, or nothing after ten
  /// seconds.
  std::optional<Bytes> ReceiveMulticast() const;

 private:
  Descriptor tap;
};
