// The two sockets on the link.
#include "standard/sockets.h"

#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/text.h"

namespace {

// RFC 6762, section 3.
constexpr uint8_t kGroups[kFamilies][sizeof(in6_addr)] = {
    {224, 0, 0, 251}, {0xFF, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFB}};
constexpr int kHopLimit = 255;  // RFC 6762, section 11

constexpr size_t Index(Family family) { return static_cast<size_t>(family); }

bool SetNumber(int socket, int level, int option, int value) {
  return setsockopt(socket, level, option, &value, sizeof(value)) == 0;
}

bool BindToLink(int socket, std::string_view name) {
  char device[IFNAMSIZ];
  CopyText(device, name);
  return setsockopt(socket, SOL_SOCKET, SO_BINDTODEVICE, device, sizeof(device)) == 0;
}

bool BindToPort(int socket, Family family) {
  if (family == Family::kIpv4) {
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(kMdnsPort);
    return bind(socket, reinterpret_cast<const sockaddr*>(&any), sizeof(any)) == 0;
  }
  sockaddr_in6 any{};
  any.sin6_family = AF_INET6;
  any.sin6_port = htons(kMdnsPort);
  return bind(socket, reinterpret_cast<const sockaddr*>(&any), sizeof(any)) == 0;
}

bool SetMulticastInterface(int socket, Family family, int32_t index) {
  if (family == Family::kIpv6) return SetNumber(socket, IPPROTO_IPV6, IPV6_MULTICAST_IF, index);
  ip_mreqn interface {};
  interface.imr_ifindex = index;
  return setsockopt(socket, IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof(interface)) == 0;
}

struct NumberOption {
  int level;
  int option;
  int value;
  const char* failure;
};

// Other groups are none of ours, also where other programs of the host have joined them.
constexpr NumberOption kIpv4Options[] = {
    {IPPROTO_IP, IP_MULTICAST_TTL, kHopLimit, "[Bonjour] setsockopt IP_MULTICAST_TTL"},
    {IPPROTO_IP, IP_TTL, kHopLimit, "[Bonjour] setsockopt IP_TTL"},
    {IPPROTO_IP, IP_MULTICAST_LOOP, 1, "[Bonjour] setsockopt IP_MULTICAST_LOOP"},
    {IPPROTO_IP, IP_MULTICAST_ALL, 0, "[Bonjour] setsockopt IP_MULTICAST_ALL"},
    {IPPROTO_IP, IP_PKTINFO, 1, "[Bonjour] setsockopt IP_PKTINFO"},
};
constexpr NumberOption kIpv6Options[] = {
    {IPPROTO_IPV6, IPV6_MULTICAST_HOPS, kHopLimit, "[Bonjour] setsockopt IPV6_MULTICAST_HOPS"},
    {IPPROTO_IPV6, IPV6_UNICAST_HOPS, kHopLimit, "[Bonjour] setsockopt IPV6_UNICAST_HOPS"},
    {IPPROTO_IPV6, IPV6_MULTICAST_LOOP, 1, "[Bonjour] setsockopt IPV6_MULTICAST_LOOP"},
    {IPPROTO_IPV6, IPV6_RECVPKTINFO, 1, "[Bonjour] setsockopt IPV6_RECVPKTINFO"},
};

template <size_t kCount>
const char* SetNumbers(int socket, const NumberOption (&options)[kCount]) {
  for (const NumberOption& option : options) {
    if (!SetNumber(socket, option.level, option.option, option.value)) return option.failure;
  }
  return nullptr;
}

// Returns the text of what failed, or null.
const char* SetUp(int socket, Family family, std::string_view name, int32_t index) {
  if (!SetNumber(socket, SOL_SOCKET, SO_REUSEADDR, 1)) return "[Bonjour] setsockopt SO_REUSEADDR";
  if (family == Family::kIpv6 && !SetNumber(socket, IPPROTO_IPV6, IPV6_V6ONLY, 1)) {
    return "[Bonjour] setsockopt IPV6_V6ONLY";
  }
  // Before the port: two programs may have one port on two interfaces.
  if (!BindToLink(socket, name)) return "[Bonjour] setsockopt SO_BINDTODEVICE";
  if (!BindToPort(socket, family)) return "[Bonjour] discovery bind";
  if (!SetMulticastInterface(socket, family, index)) return "[Bonjour] setsockopt MULTICAST_IF";
  return family == Family::kIpv4 ? SetNumbers(socket, kIpv4Options)
                                 : SetNumbers(socket, kIpv6Options);
}

bool ChangeMembership(int socket, Family family, int32_t index, bool isMember) {
  if (family == Family::kIpv4) {
    ip_mreqn membership{};
    memcpy(&membership.imr_multiaddr, kGroups[Index(family)], sizeof(membership.imr_multiaddr));
    membership.imr_ifindex = index;
    return setsockopt(socket, IPPROTO_IP, isMember ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP,
                      &membership, sizeof(membership)) == 0;
  }
  ipv6_mreq membership{};
  memcpy(&membership.ipv6mr_multiaddr, kGroups[Index(family)], sizeof(membership.ipv6mr_multiaddr));
  membership.ipv6mr_interface = static_cast<unsigned>(index);
  return setsockopt(socket, IPPROTO_IPV6, isMember ? IPV6_JOIN_GROUP : IPV6_LEAVE_GROUP,
                    &membership, sizeof(membership)) == 0;
}

union SocketName {
  sockaddr any;
  sockaddr_in ipv4;
  sockaddr_in6 ipv6;
};

// Where a datagram was sent to and on which interface it came; index 0 when that is not said.
struct Arrival {
  Address destination;
  int32_t index;
};

Arrival ReadArrival(msghdr& message) {
  Arrival arrival = {};
  for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr;
       part = CMSG_NXTHDR(&message, part)) {
    if (part->cmsg_level == IPPROTO_IP && part->cmsg_type == IP_PKTINFO) {
      in_pktinfo info;
      memcpy(&info, CMSG_DATA(part), sizeof(info));
      arrival.destination.family = Family::kIpv4;
      memcpy(arrival.destination.bytes, &info.ipi_addr, sizeof(info.ipi_addr));
      arrival.index = info.ipi_ifindex;
    } else if (part->cmsg_level == IPPROTO_IPV6 && part->cmsg_type == IPV6_PKTINFO) {
      in6_pktinfo info;
      memcpy(&info, CMSG_DATA(part), sizeof(info));
      arrival.destination.family = Family::kIpv6;
      memcpy(arrival.destination.bytes, &info.ipi6_addr, sizeof(info.ipi6_addr));
      arrival.index = static_cast<int32_t>(info.ipi6_ifindex);
    }
  }
  return arrival;
}

bool IsGroup(const Address& address) {
  return memcmp(address.bytes, kGroups[Index(address.family)], sizeof(address.bytes)) == 0;
}

// Of the host itself; a broadcast address is not.
bool IsOwn(const LinkState& link, const Address& address) {
  for (uint8_t i = 0; i < link.addressCount; ++i) {
    if (AreAddressesEqual(link.addresses[i].address, address)) return true;
  }
  return false;
}

bool HasFamily(const LinkState& link, Family family) {
  for (uint8_t i = 0; i < link.addressCount; ++i) {
    if (link.addresses[i].address.family == family) return true;
  }
  return false;
}

Endpoint ReadSource(const SocketName& address, Family family) {
  Endpoint source = {};
  source.address.family = family;
  if (family == Family::kIpv4) {
    memcpy(source.address.bytes, &address.ipv4.sin_addr, sizeof(address.ipv4.sin_addr));
    source.port = ntohs(address.ipv4.sin_port);
  } else {
    memcpy(source.address.bytes, &address.ipv6.sin6_addr, sizeof(address.ipv6.sin6_addr));
    source.port = ntohs(address.ipv6.sin6_port);
  }
  return source;
}

}  // namespace

SocketFailure OpenSockets(Sockets& sockets, std::string_view name, int32_t index) {
  SocketFailure failure = {};
  sockets.index = index;
  for (const Family family : {Family::kIpv4, Family::kIpv6}) {
    int& descriptor = sockets.descriptors[Index(family)];
    if (descriptor >= 0) continue;
    const char* failed = "[Bonjour] socket";
    descriptor = socket(family == Family::kIpv4 ? AF_INET : AF_INET6,
                        SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0 && errno == EAFNOSUPPORT) continue;
    if (descriptor >= 0) failed = SetUp(descriptor, family, name, index);
    if (failed == nullptr) continue;
    if (failure.text == nullptr) failure = {failed, errno};
    if (descriptor >= 0) close(descriptor);
    descriptor = -1;
  }
  return failure;
}

SocketFailure JoinGroups(Sockets& sockets, const LinkState& link) {
  SocketFailure failure = {};
  for (const Family family : {Family::kIpv4, Family::kIpv6}) {
    const int descriptor = sockets.descriptors[Index(family)];
    bool& hasJoined = sockets.hasJoined[Index(family)];
    if (descriptor < 0 || hasJoined) continue;
    hasJoined = ChangeMembership(descriptor, family, sockets.index, true);
    if (hasJoined || !HasFamily(link, family) || failure.text != nullptr) continue;
    failure = {"[Bonjour] setsockopt ADD_MEMBERSHIP", errno};
  }
  return failure;
}

void LeaveGroups(Sockets& sockets) {
  for (const Family family : {Family::kIpv4, Family::kIpv6}) {
    const int descriptor = sockets.descriptors[Index(family)];
    if (descriptor >= 0) ChangeMembership(descriptor, family, sockets.index, false);
    sockets.hasJoined[Index(family)] = false;
  }
}

void CloseSockets(Sockets& sockets) {
  for (const int descriptor : sockets.descriptors) {
    if (descriptor >= 0) close(descriptor);
  }
  sockets = {};
}

bool ReceiveDatagram(const Sockets& sockets, Family family, const LinkState& link,
                     uint8_t (&buffer)[kDatagramMax], ReceivedDatagram& taken) {
  SocketName source{};
  iovec bytes = {buffer, sizeof(buffer)};
  alignas(cmsghdr) uint8_t control[128];
  msghdr message{};
  message.msg_name = &source;
  message.msg_namelen = sizeof(source);
  message.msg_iov = &bytes;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  const ssize_t received = recvmsg(sockets.descriptors[Index(family)], &message, 0);
  // An error that the link reported earlier, which is taken by this; more may wait.
  if (received < 0 && errno != EAGAIN && errno != EBADF) {
    taken = {};
    return true;
  }
  if (received < 0) return false;

  taken = {buffer, 0, ReadSource(source, family), false};
  const Arrival arrival = ReadArrival(message);
  if ((message.msg_flags & MSG_TRUNC) != 0 || arrival.index != sockets.index) return true;
  taken.isMulticast = IsGroup(arrival.destination);
  if (taken.isMulticast || IsOwn(link, arrival.destination)) {
    taken.length = static_cast<size_t>(received);
  }
  return true;
}

void SendDatagram(const Sockets& sockets, const OutgoingDatagram& datagram) {
  const Address& to = datagram.destination.address;
  const int descriptor = sockets.descriptors[Index(to.family)];
  if (descriptor < 0) return;
  SocketName address{};
  socklen_t size = 0;
  if (to.family == Family::kIpv4) {
    address.ipv4.sin_family = AF_INET;
    address.ipv4.sin_port = htons(datagram.destination.port);
    memcpy(&address.ipv4.sin_addr, to.bytes, sizeof(address.ipv4.sin_addr));
    size = sizeof(address.ipv4);
  } else {
    address.ipv6.sin6_family = AF_INET6;
    address.ipv6.sin6_port = htons(datagram.destination.port);
    memcpy(&address.ipv6.sin6_addr, to.bytes, sizeof(address.ipv6.sin6_addr));
    address.ipv6.sin6_scope_id = static_cast<uint32_t>(sockets.index);
    size = sizeof(address.ipv6);
  }
  sendto(descriptor, datagram.bytes, datagram.length, 0, &address.any, size);
}
