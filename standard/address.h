// Internet addresses of both families, and the state of the one link that the responder serves.
#pragma once

#include <cstddef>
#include <cstdint>

/// Bytes of an Ethernet address.
constexpr size_t kHardwareAddressSize = 6;

/// The two address families. Each is a multicast DNS link of its own (RFC 6762, section 20): what
/// one of them carried counts for that one alone.
enum class Family : uint8_t { kIpv4 = 0, kIpv6 = 1 };
constexpr size_t kFamilies = 2;

/// An address in network byte order; an IPv4 address takes the first four bytes, the rest is zero.
struct Address {
  Family family;
  uint8_t bytes[16];
};

/// Where a datagram came from or goes to. The port is in host byte order.
struct Endpoint {
  Address address;
  uint16_t port;
};

/// An address of the link and the length of its prefix in bits.
struct LinkAddress {
  Address address;
  uint8_t prefixLength;
};

/// The most addresses of a link that are published; further ones are left out.
constexpr size_t kLinkAddressesMax = 16;

/// What the kernel says of the link. All zero: there is none.
struct LinkState {
  bool isUp;                                 ///< it exists, is up and has a carrier
  uint16_t mtu;                              ///< bytes of an IP packet
  uint8_t mac[kHardwareAddressSize];         ///< hardware address
  uint8_t addressCount;                      ///< entries of `addresses` in use
  LinkAddress addresses[kLinkAddressesMax];  ///< usable ones only: no tentative or failed address
};

/// True when both are the same address.
bool AreAddressesEqual(const Address& a, const Address& b);

/// True when `address` is on the subnet of one of the link's addresses, or is an IPv6 link-local
/// one (RFC 6762, section 11).
bool IsOnLink(const LinkState& link, const Address& address);
