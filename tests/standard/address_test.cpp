#include "standard/address.h"

#include <gtest/gtest.h>

namespace {

Address Ipv4(uint8_t a, uint8_t b, uint8_t c, uint8_t d) { return {Family::kIpv4, {a, b, c, d}}; }

Address Ipv6(uint8_t first, uint8_t second, uint8_t last) {
  Address address = {Family::kIpv6, {first, second}};
  address.bytes[15] = last;
  return address;
}

struct Row {
  const char* what;
  Address own;
  uint8_t prefixLength;
  Address other;
  bool isOnLink;
};

TEST(Address, IsOnTheLinkWhenItIsAHostOfASubnet) {
  const Row rows[] = {
      {"same /24", Ipv4(10, 0, 1, 1), 24, Ipv4(10, 0, 1, 254), true},
      {"oneself", Ipv4(10, 0, 1, 1), 24, Ipv4(10, 0, 1, 1), true},
      {"next /24", Ipv4(10, 0, 1, 1), 24, Ipv4(10, 0, 2, 1), false},
      {"same /23", Ipv4(10, 0, 2, 1), 23, Ipv4(10, 0, 3, 1), true},
      {"next /23", Ipv4(10, 0, 2, 1), 23, Ipv4(10, 0, 4, 1), false},
      {"broadcast", Ipv4(10, 0, 1, 1), 24, Ipv4(10, 0, 1, 255), false},
      {"the subnet", Ipv4(10, 0, 1, 1), 24, Ipv4(10, 0, 1, 0), false},
      {"/31", Ipv4(10, 0, 1, 0), 31, Ipv4(10, 0, 1, 1), true},
      {"no subnet", Ipv4(10, 0, 1, 1), 0, Ipv4(10, 0, 1, 2), false},
      {"impossible prefix", Ipv4(10, 0, 1, 1), 33, Ipv4(10, 0, 1, 1), false},
      {"multicast", Ipv4(224, 0, 0, 1), 8, Ipv4(224, 0, 0, 251), false},
      {"everybody", Ipv4(255, 0, 0, 1), 8, Ipv4(255, 255, 255, 255), false},
      {"the other family", Ipv4(0x20, 1, 0, 1), 16, Ipv6(0x20, 1, 2), false},
      {"link-local", Ipv4(10, 0, 1, 1), 24, Ipv6(0xFE, 0x80, 1), true},
      {"end of link-local", Ipv4(10, 0, 1, 1), 24, Ipv6(0xFE, 0xBF, 1), true},
      {"behind link-local", Ipv4(10, 0, 1, 1), 24, Ipv6(0xFE, 0xC0, 1), false},
      {"same /64", Ipv6(0x20, 1, 1), 64, Ipv6(0x20, 1, 2), true},
      {"next prefix", Ipv6(0x20, 1, 1), 64, Ipv6(0x20, 2, 2), false},
      {"IPv6 multicast", Ipv6(0xFF, 2, 1), 16, Ipv6(0xFF, 2, 2), false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    LinkState link = {};
    link.addressCount = 1;
    link.addresses[0] = {row.own, row.prefixLength};
    EXPECT_EQ(IsOnLink(link, row.other), row.isOnLink);
  }
}

TEST(Address, AnySubnetOfTheLinkCounts) {
  LinkState link = {};
  link.addressCount = 2;
  link.addresses[0] = {Ipv4(10, 0, 1, 1), 24};
  link.addresses[1] = {Ipv4(10, 0, 2, 1), 24};
  EXPECT_TRUE(IsOnLink(link, Ipv4(10, 0, 2, 2)));
  link.addressCount = 1;
  EXPECT_FALSE(IsOnLink(link, Ipv4(10, 0, 2, 2)));
}

TEST(Address, Ipv4ComparesFourBytesAndIpv6Sixteen) {
  EXPECT_TRUE(AreAddressesEqual(Ipv4(1, 2, 3, 4), Ipv4(1, 2, 3, 4)));
  EXPECT_FALSE(AreAddressesEqual(Ipv4(1, 2, 3, 4), Ipv4(1, 2, 3, 5)));
  EXPECT_FALSE(AreAddressesEqual(Ipv6(1, 2, 3), Ipv6(1, 2, 4)));
  EXPECT_FALSE(AreAddressesEqual(Ipv4(1, 2, 0, 0), Ipv6(1, 2, 0)));
}

}  // namespace
