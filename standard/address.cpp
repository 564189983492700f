// Internet addresses of both families.
#include "standard/address.h"

#include <cstring>

namespace {

constexpr unsigned kBitsPerByte = 8;

// The first `bits` bits of both are the same.
bool IsPrefixShared(const Address& a, const Address& b, unsigned bits) {
  const size_t whole = bits / kBitsPerByte;
  if (memcmp(a.bytes, b.bytes, whole) != 0) return false;
  const unsigned rest = bits % kBitsPerByte;
  if (rest == 0) return true;
  const unsigned mask = 0xFF00U >> rest;
  return ((a.bytes[whole] ^ b.bytes[whole]) & mask & 0xFF) == 0;
}

}  // namespace

bool AreAddressesEqual(const Address& a, const Address& b) {
  return a.family == b.family && memcmp(a.bytes, b.bytes, sizeof(a.bytes)) == 0;
}

bool IsOnLink(const LinkState& link, const Address& address) {
  // fe80::/10 (RFC 4291, section 2.4).
  if (address.family == Family::kIpv6 && address.bytes[0] == 0xFE &&
      (address.bytes[1] & 0xC0) == 0x80) {
    return true;
  }
  for (uint8_t i = 0; i < link.addressCount; ++i) {
    const LinkAddress& own = link.addresses[i];
    if (own.address.family == address.family &&
        IsPrefixShared(own.address, address, own.prefixLength)) {
      return true;
    }
  }
  return false;
}
