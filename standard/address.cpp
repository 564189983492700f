// Internet addresses of both families, and the state of the one link that the responder serves.
#include "standard/address.h"

#include <cstring>

namespace {

constexpr unsigned kIpv4Bits = 32;
constexpr unsigned kIpv6Bits = 128;

unsigned BitsOf(Family family) { return family == Family::kIpv4 ? kIpv4Bits : kIpv6Bits; }

bool BitAt(const Address& address, unsigned bit) {
  return (address.bytes[bit / 8] >> (7 - bit % 8) & 1) != 0;
}

bool SharePrefix(const Address& a, const Address& b, unsigned bits) {
  if (memcmp(a.bytes, b.bytes, bits / 8) != 0) return false;
  for (unsigned bit = bits - bits % 8; bit < bits; ++bit) {
    if (BitAt(a, bit) != BitAt(b, bit)) return false;
  }
  return true;
}

bool AreBitsFrom(const Address& address, unsigned from, unsigned to, bool value) {
  for (unsigned bit = from; bit < to; ++bit) {
    if (BitAt(address, bit) != value) return false;
  }
  return true;
}

// The subnet itself and its broadcast address, which a subnet of two hosts has not (RFC 3021).
bool IsWholeIpv4Subnet(const Address& address, unsigned prefix) {
  return prefix < kIpv4Bits - 1 && (AreBitsFrom(address, prefix, kIpv4Bits, false) ||
                                    AreBitsFrom(address, prefix, kIpv4Bits, true));
}

bool IsIpv6LinkLocal(const Address& address) {
  return address.family == Family::kIpv6 && address.bytes[0] == 0xFE &&
         (address.bytes[1] & 0xC0) == 0x80;
}

bool IsMulticast(const Address& address) {
  return address.family == Family::kIpv4 ? address.bytes[0] >= 224 : address.bytes[0] == 0xFF;
}

bool IsOnSubnet(const LinkAddress& own, const Address& address) {
  const unsigned prefix = own.prefixLength;
  if (own.address.family != address.family || prefix == 0 || prefix > BitsOf(address.family) ||
      !SharePrefix(own.address, address, prefix)) {
    return false;
  }
  return address.family == Family::kIpv6 || !IsWholeIpv4Subnet(address, prefix);
}

}  // namespace

bool AreAddressesEqual(const Address& a, const Address& b) {
  return a.family == b.family && memcmp(a.bytes, b.bytes, BitsOf(a.family) / 8) == 0;
}

bool IsOnLink(const LinkState& link, const Address& address) {
  if (IsMulticast(address)) return false;
  if (IsIpv6LinkLocal(address)) return true;
  for (size_t i = 0; i < link.addressCount; ++i) {
    if (IsOnSubnet(link.addresses[i], address)) return true;
  }
  return false;
}
