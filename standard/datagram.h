// What is received and what is sent.
#pragma once

#include <cstddef>
#include <cstdint>

#include "standard/address.h"

/// The port of multicast DNS, source and destination of all that is sent (RFC 6762, section 3).
constexpr uint16_t kMdnsPort = 5353;

/// The headers before a message: of IPv6, which are the longer ones, and of UDP.
constexpr size_t kPacketHeaders = 40 + 8;

/// The largest datagram that is read or written: RFC 6762, section 17, less the headers.
constexpr size_t kDatagramMax = 9000 - kPacketHeaders;

/// A received datagram. The bytes are the caller's and looked at during the call alone.
struct ReceivedDatagram {
  const uint8_t* bytes;
  size_t length;
  Endpoint source;
  bool isMulticast;  ///< sent to the group, not to an address of this host
};

/// A datagram to send from port 5353, with hop limit 255 (RFC 6762, section 11).
struct OutgoingDatagram {
  Endpoint destination;  ///< the group of its family, or a host of the link
  size_t length;
  uint8_t bytes[kDatagramMax];
};
