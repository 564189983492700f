// The sockets on the link, on a bridge of the test's own.
#include "standard/sockets.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>

#include "tests/standard/other_host.h"
#include "tests/support/bytes.h"
#include "tests/support/fault.h"
#include "tests/support/network.h"

namespace {

constexpr LinkAddress kOwnAddress = {{Family::kIpv4, {192, 168, 77, 1}}, 24};

void WriteSetting(const char* path, const char* value) { std::ofstream(path) << value; }

class SocketsTest : public testing::Test {
 protected:
  SocketsTest() {
    // Without the wait for others that use the bridge's IPv6 address.
    WriteSetting("/proc/sys/net/ipv6/conf/default/accept_dad", "0");
    AddBridge("br0");
    SetAddress("br0", "192.168.77.1");
    SetInterfaceUp("br0", true);
    host.emplace("br0");
    index = static_cast<int32_t>(if_nametoindex("br0"));
    link.isUp = true;
    link.addressCount = 1;
    link.addresses[0] = kOwnAddress;
  }
  ~SocketsTest() override { CloseSockets(sockets); }

  void Open() {
    EXPECT_EQ(OpenSockets(sockets, "br0", index).text, nullptr);
    EXPECT_EQ(JoinGroups(sockets, link).text, nullptr);
  }

  int Number(Family family, int level, int option) const {
    int value = -1;
    socklen_t size = sizeof(value);
    getsockopt(sockets.descriptors[static_cast<size_t>(family)], level, option, &value, &size);
    return value;
  }

  // The next datagram on the family's socket, its length 0 where it is none of this host's.
  ReceivedDatagram Receive(Family family) {
    pollfd entry = {sockets.descriptors[static_cast<size_t>(family)], POLLIN, 0};
    EXPECT_EQ(poll(&entry, 1, 10000), 1);
    ReceivedDatagram taken = {};
    EXPECT_TRUE(ReceiveDatagram(sockets, family, link, buffer, taken));
    return taken;
  }

  const OwnNetwork network;
  std::optional<OtherHost> host;
  int32_t index;
  LinkState link = {};
  Sockets sockets;
  uint8_t buffer[kDatagramMax];
};

TEST_F(SocketsTest, OptionsOfBothFamiliesAreSet) {
  Open();
  const struct {
    Family family;
    int level;
    int option;
    int value;
  } rows[] = {
      {Family::kIpv4, SOL_SOCKET, SO_REUSEADDR, 1},
      {Family::kIpv4, IPPROTO_IP, IP_TTL, 255},
      {Family::kIpv4, IPPROTO_IP, IP_MULTICAST_TTL, 255},
      {Family::kIpv4, IPPROTO_IP, IP_MULTICAST_LOOP, 1},
      {Family::kIpv4, IPPROTO_IP, IP_MULTICAST_ALL, 0},
      {Family::kIpv4, IPPROTO_IP, IP_PKTINFO, 1},
      {Family::kIpv6, SOL_SOCKET, SO_REUSEADDR, 1},
      {Family::kIpv6, IPPROTO_IPV6, IPV6_V6ONLY, 1},
      {Family::kIpv6, IPPROTO_IPV6, IPV6_UNICAST_HOPS, 255},
      {Family::kIpv6, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, 255},
      {Family::kIpv6, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, 1},
      {Family::kIpv6, IPPROTO_IPV6, IPV6_MULTICAST_IF, index},
      {Family::kIpv6, IPPROTO_IPV6, IPV6_RECVPKTINFO, 1},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Number(row.family, row.level, row.option), row.value)
        << "level " << row.level << " option " << row.option;
  }
  for (const int descriptor : sockets.descriptors) {
    char device[IFNAMSIZ] = {};
    socklen_t size = sizeof(device);
    ASSERT_EQ(getsockopt(descriptor, SOL_SOCKET, SO_BINDTODEVICE, device, &size), 0);
    EXPECT_STREQ(device, "br0");
    sockaddr_in6 name{};
    size = sizeof(name);
    ASSERT_EQ(getsockname(descriptor, reinterpret_cast<sockaddr*>(&name), &size), 0);
    EXPECT_EQ(ntohs(name.sin6_port), 5353);
  }
}

// In igmp the groups of a device follow its line, in igmp6 each line has both.
bool IsMember(Family family) {
  const bool isIpv4 = family == Family::kIpv4;
  const char* group = isIpv4 ? "FB0000E0" : "ff0200000000000000000000000000fb";
  std::ifstream file(isIpv4 ? "/proc/thread-self/net/igmp" : "/proc/thread-self/net/igmp6");
  std::string line;
  std::string device;
  while (std::getline(file, line)) {
    if (!isIpv4 || line[0] != '\t') device = line;
    if (line.find(group) != std::string::npos && device.find("br0") != std::string::npos) {
      return true;
    }
  }
  return false;
}

TEST_F(SocketsTest, GroupsAreJoinedLeftAndJoinedAgain) {
  Open();
  EXPECT_TRUE(IsMember(Family::kIpv4));
  EXPECT_TRUE(IsMember(Family::kIpv6));
  LeaveGroups(sockets);
  EXPECT_FALSE(IsMember(Family::kIpv4));
  EXPECT_FALSE(IsMember(Family::kIpv6));
  EXPECT_EQ(JoinGroups(sockets, link).text, nullptr);
  EXPECT_TRUE(IsMember(Family::kIpv4));
  EXPECT_TRUE(IsMember(Family::kIpv6));
}

TEST_F(SocketsTest, QuestionToTheGroupComesWithItsSource) {
  Open();
  host->SendMulticast("192.168.77.9", Wire("01 02 03"));
  const ReceivedDatagram taken = Receive(Family::kIpv4);
  EXPECT_EQ(Hex({taken.bytes, taken.length}), "01 02 03");
  EXPECT_TRUE(taken.isMulticast);
  EXPECT_EQ(taken.source.port, 5353);
  EXPECT_EQ(Hex({taken.source.address.bytes, 16}), WireHex("C0 A8 4D 09 12*00"));
  ReceivedDatagram rest;
  EXPECT_FALSE(ReceiveDatagram(sockets, Family::kIpv4, link, buffer, rest));
}

// One's own packets reach the other programs of the host, and come back (RFC 6762, section 15).
TEST_F(SocketsTest, SentDatagramsGoToTheGroupsAndComeBack) {
  Open();
  for (const Family family : {Family::kIpv4, Family::kIpv6}) {
    OutgoingDatagram datagram = {};
    datagram.destination.address.family = family;
    const Bytes group = family == Family::kIpv4 ? Wire("E0 00 00 FB") : Wire("FF 02 13*00 FB");
    memcpy(datagram.destination.address.bytes, group.data(), group.size());
    datagram.destination.port = 5353;
    datagram.bytes[0] = 0x2A;
    datagram.length = 1;
    // The kernel gives a new bridge its IPv6 address and routes once it has a carrier; before that
    // nothing can be sent.
    pollfd entry = {sockets.descriptors[static_cast<size_t>(family)], POLLIN, 0};
    for (int tries = 0; tries < 100 && entry.revents == 0; ++tries) {
      SendDatagram(sockets, datagram);
      poll(&entry, 1, 100);
    }
    const ReceivedDatagram taken = Receive(family);
    EXPECT_EQ(Hex({taken.bytes, taken.length}), "2A");
    EXPECT_TRUE(taken.isMulticast);
    EXPECT_EQ(taken.source.port, 5353);
    EXPECT_EQ(taken.source.address.family, family);
  }
  EXPECT_EQ(host->ReceiveMulticast(), Wire("2A"));
}

TEST_F(SocketsTest, LongerDatagramThanAnyIsDropped) {
  Open();
  const UdpSocket sender("192.168.77.1");
  const in_addr bridge = {inet_addr("192.168.77.1")};
  setsockopt(sender.Get(), IPPROTO_IP, IP_MULTICAST_IF, &bridge, sizeof(bridge));
  sender.Send(Bytes(kDatagramMax + 1), SocketAddress("224.0.0.251", 5353));
  EXPECT_EQ(Receive(Family::kIpv4).length, 0u);
  sender.Send(Bytes(kDatagramMax), SocketAddress("224.0.0.251", 5353));
  EXPECT_EQ(Receive(Family::kIpv4).length, kDatagramMax);
}

TEST_F(SocketsTest, BroadcastIsDropped) {
  Open();
  const UdpSocket sender("192.168.77.1");
  const int on = 1;
  setsockopt(sender.Get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof(on));
  sender.Send(Wire("01 02 03"), SocketAddress("192.168.77.255", 5353));
  EXPECT_EQ(Receive(Family::kIpv4).length, 0u);
}

TEST_F(SocketsTest, PortThatOthersShareIsShared) {
  const int on = 1;
  const Descriptor shared(socket(AF_INET, SOCK_DGRAM, 0));
  setsockopt(shared.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  const sockaddr_in any = SocketAddress("0.0.0.0", 5353);
  ASSERT_EQ(bind(shared.Get(), reinterpret_cast<const sockaddr*>(&any), sizeof(any)), 0);
  Open();
}

TEST_F(SocketsTest, InterfaceThatWentIsAFailureAndLeavesNothingOpen) {
  const SocketFailure failure = OpenSockets(sockets, "br1", index);
  EXPECT_STREQ(failure.text, "[Bonjour] setsockopt SO_BINDTODEVICE");
  EXPECT_EQ(failure.error, ENODEV);
  EXPECT_EQ(sockets.descriptors[0], -1);
  EXPECT_EQ(sockets.descriptors[1], -1);
}

TEST_F(SocketsTest, FamilyThatFailedIsOpenedByTheNextCall) {
  socketFault.FailCall(2);
  const SocketFailure failure = OpenSockets(sockets, "br0", index);
  ASSERT_TRUE(socketFault.HasStruck());
  EXPECT_STREQ(failure.text, "[Bonjour] socket");
  EXPECT_EQ(failure.error, EMFILE);
  const int ipv4 = sockets.descriptors[0];
  EXPECT_GE(ipv4, 0);
  Open();
  EXPECT_EQ(sockets.descriptors[0], ipv4);
  EXPECT_GE(sockets.descriptors[1], 0);
}

TEST_F(SocketsTest, EveryOptionThatFailsIsReportedAndClosesItsSocket) {
  for (int call = 1;; ++call) {
    setsockoptFault.FailCall(call);
    const SocketFailure failure = OpenSockets(sockets, "br0", index);
    if (!setsockoptFault.HasStruck()) {
      setsockoptFault.FailCall(0);
      EXPECT_EQ(call, 17) << "eight options a family, and one more";
      break;
    }
    ASSERT_NE(failure.text, nullptr) << call;
    EXPECT_EQ(failure.error, EPERM) << call;
    EXPECT_TRUE(sockets.descriptors[0] == -1 || sockets.descriptors[1] == -1) << call;
    CloseSockets(sockets);
  }
}

// A group that is refused matters only where there is something to be heard.
TEST_F(SocketsTest, RefusedGroupIsAFailureOfAFamilyWithAddresses) {
  EXPECT_EQ(OpenSockets(sockets, "br0", index).text, nullptr);
  setsockoptFault.FailCall(1);
  EXPECT_STREQ(JoinGroups(sockets, link).text, "[Bonjour] setsockopt ADD_MEMBERSHIP");
  EXPECT_FALSE(IsMember(Family::kIpv4));
  setsockoptFault.FailCall(1);
  EXPECT_EQ(JoinGroups(sockets, {}).text, nullptr);
  ASSERT_TRUE(setsockoptFault.HasStruck());
  EXPECT_EQ(JoinGroups(sockets, link).text, nullptr);
  EXPECT_TRUE(IsMember(Family::kIpv4));
}

}  // namespace
