// What the kernel says of the bridge.
#include "standard/netlink.h"

#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

// How often a reading that something came between is begun again at once.
constexpr int kReadAttempts = 3;
// The kernel replies while it takes the request; a bound for what must not happen.
constexpr int kReplyMilliseconds = 100;
// Datagrams after which others get their turn.
constexpr int kTakenAtOnce = 64;
// The kernel's lists are in far fewer.
constexpr int kTakenForReplyMax = 256;

// A piece of a received datagram.
struct Piece {
  const uint8_t* bytes;
  size_t length;
};

// Cuts a record of type T from the front, with its padding. False when it is not there whole.
template <typename T>
bool TakeHeader(Piece& piece, T& header) {
  constexpr size_t kAligned = NLMSG_ALIGN(sizeof(T));
  if (piece.length < sizeof(T)) return false;
  memcpy(&header, piece.bytes, sizeof(T));
  const size_t taken = piece.length < kAligned ? piece.length : kAligned;
  piece = {piece.bytes + taken, piece.length - taken};
  return true;
}

// Cuts what follows a header that says `length` for both from the front. False when there is less.
bool TakeBody(Piece& piece, size_t length, size_t headerSize, Piece& body) {
  if (length < headerSize || length - headerSize > piece.length) return false;
  body = {piece.bytes, length - headerSize};
  const size_t aligned = NLMSG_ALIGN(body.length);
  const size_t taken = piece.length < aligned ? piece.length : aligned;
  piece = {piece.bytes + taken, piece.length - taken};
  return true;
}

bool TakeMessage(Piece& piece, nlmsghdr& header, Piece& body) {
  return TakeHeader(piece, header) && TakeBody(piece, header.nlmsg_len, sizeof(header), body);
}

bool TakeAttribute(Piece& piece, rtattr& header, Piece& body) {
  return TakeHeader(piece, header) && TakeBody(piece, header.rta_len, sizeof(header), body);
}

uint32_t Word(const Piece& body) {
  uint32_t word = 0;
  if (body.length == sizeof(word)) memcpy(&word, body.bytes, sizeof(word));
  return word;
}

void Forget(LinkWatch& watch) {
  watch.index = 0;
  watch.link = {};
}

void Lose(LinkWatch& watch) {
  Forget(watch);
  watch.wasDown = true;
}

void HandleLinkMessage(LinkWatch& watch, std::string_view name, const nlmsghdr& message,
                       Piece body) {
  ifinfomsg info;
  // The bridge announces its ports in messages of the same type, under a family of its own.
  if (!TakeHeader(body, info) || info.ifi_family != AF_UNSPEC || info.ifi_index <= 0) return;
  if (message.nlmsg_type == RTM_DELLINK) {
    if (info.ifi_index == watch.index) Lose(watch);
    return;
  }

  bool isNamed = false;
  uint32_t carrierChanges = 0;
  LinkState link = {};
  constexpr unsigned kUp = IFF_UP | IFF_RUNNING;
  link.isUp = (info.ifi_flags & kUp) == kUp;
  rtattr attribute;
  Piece value;
  while (TakeAttribute(body, attribute, value)) {
    const char* text = reinterpret_cast<const char*>(value.bytes);
    switch (attribute.rta_type) {
      case IFLA_IFNAME:
        isNamed = name == std::string_view(text, strnlen(text, value.length));
        break;
      case IFLA_MTU:
        link.mtu = static_cast<uint16_t>(Word(value) < UINT16_MAX ? Word(value) : UINT16_MAX);
        break;
      case IFLA_ADDRESS:
        if (value.length == sizeof(link.mac)) memcpy(link.mac, value.bytes, sizeof(link.mac));
        break;
      case IFLA_CARRIER_CHANGES:
        carrierChanges = Word(value);
        break;
      default:
        break;
    }
  }
  if (!isNamed) {
    // It was renamed.
    if (info.ifi_index == watch.index) Lose(watch);
    return;
  }
  // The kernel reports a carrier late, and one that came back at once only by this count.
  if (!link.isUp || carrierChanges != watch.carrierChanges) watch.wasDown = true;
  watch.carrierChanges = carrierChanges;
  if (info.ifi_index == watch.index) {
    link.addressCount = watch.link.addressCount;
    memcpy(link.addresses, watch.link.addresses, sizeof(link.addresses));
  } else {
    // Another one bears the name now; it may have had its addresses before.
    watch.index = info.ifi_index;
    watch.mustReread = true;
  }
  watch.link = link;
}

void AddAddress(LinkState& link, const LinkAddress& added) {
  for (uint8_t i = 0; i < link.addressCount; ++i) {
    if (AreAddressesEqual(link.addresses[i].address, added.address)) {
      link.addresses[i] = added;
      return;
    }
  }
  if (link.addressCount < kLinkAddressesMax) link.addresses[link.addressCount++] = added;
}

void RemoveAddress(LinkWatch& watch, const Address& address) {
  LinkState& link = watch.link;
  for (uint8_t i = 0; i < link.addressCount; ++i) {
    if (!AreAddressesEqual(link.addresses[i].address, address)) continue;
    // One for which there was no place may move up.
    if (link.addressCount == kLinkAddressesMax) watch.mustReread = true;
    --link.addressCount;
    memmove(&link.addresses[i], &link.addresses[i + 1],
            sizeof(LinkAddress) * static_cast<size_t>(link.addressCount - i));
    link.addresses[link.addressCount] = {};
    return;
  }
}

void HandleAddressMessage(LinkWatch& watch, const nlmsghdr& message, Piece body) {
  ifaddrmsg info;
  if (!TakeHeader(body, info) || watch.index == 0 ||
      info.ifa_index != static_cast<uint32_t>(watch.index)) {
    return;
  }
  size_t size = 0;
  LinkAddress entry = {};
  if (info.ifa_family == AF_INET) {
    entry.address.family = Family::kIpv4;
    size = sizeof(in_addr_t);
  } else if (info.ifa_family == AF_INET6) {
    entry.address.family = Family::kIpv6;
    size = sizeof(entry.address.bytes);
  } else {
    return;
  }
  entry.prefixLength = info.ifa_prefixlen;

  uint32_t flags = info.ifa_flags;
  bool hasAddress = false;
  bool hasLocal = false;
  rtattr attribute;
  Piece value;
  while (TakeAttribute(body, attribute, value)) {
    if (attribute.rta_type == IFA_FLAGS && value.length == sizeof(flags)) flags = Word(value);
    if (value.length != size) continue;
    // With a peer, IFA_ADDRESS is the peer's.
    if (attribute.rta_type == IFA_LOCAL || (attribute.rta_type == IFA_ADDRESS && !hasLocal)) {
      memcpy(entry.address.bytes, value.bytes, size);
      hasAddress = true;
      hasLocal = hasLocal || attribute.rta_type == IFA_LOCAL;
    }
  }
  if (!hasAddress) return;
  // An address is not one's own before its detection of duplicates is over (RFC 4862, section 5.4).
  constexpr uint32_t kUnusable = IFA_F_TENTATIVE | IFA_F_DADFAILED;
  if (message.nlmsg_type == RTM_NEWADDR && (flags & kUnusable) == 0) {
    AddAddress(watch.link, entry);
  } else {
    RemoveAddress(watch, entry.address);
  }
}

// Takes one datagram that waits. Returns false when there is none.
bool TakeWaiting(int netlink, LinkWatch& watch, std::string_view name, uint8_t* buffer,
                 bool& isReplyOver) {
  sockaddr_nl source{};
  socklen_t size = sizeof(source);
  const ssize_t received = recvfrom(netlink, buffer, kNetlinkDatagramMax, MSG_TRUNC,
                                    reinterpret_cast<sockaddr*>(&source), &size);
  if (received < 0) {
    if (errno == EINTR) return true;
    if (errno == EAGAIN) return false;
    // ENOBUFS: the kernel had more to tell than the socket holds.
    watch.mustReread = true;
    return errno == ENOBUFS;
  }
  // Other programs may send to the socket too.
  if (source.nl_pid != 0) return true;
  if (static_cast<size_t>(received) > kNetlinkDatagramMax) {
    watch.mustReread = true;
    return true;
  }
  if (HandleNetlink(watch, name, buffer, static_cast<size_t>(received))) isReplyOver = true;
  return true;
}

bool WaitForReply(int netlink, LinkWatch& watch, std::string_view name, uint8_t* buffer) {
  bool isReplyOver = false;
  // What can't be taken goes on to wait, so that there is always something.
  for (int i = 0; i < kTakenForReplyMax && !isReplyOver; ++i) {
    if (TakeWaiting(netlink, watch, name, buffer, isReplyOver)) continue;
    pollfd entry = {netlink, POLLIN, 0};
    if (poll(&entry, 1, kReplyMilliseconds) <= 0) break;
  }
  return isReplyOver;
}

bool Send(int netlink, const void* request, size_t size) {
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  return sendto(netlink, request, size, 0, reinterpret_cast<const sockaddr*>(&kernel),
                sizeof(kernel)) == static_cast<ssize_t>(size);
}

bool RequestLink(int netlink, std::string_view name, uint32_t sequence) {
  struct {
    nlmsghdr header;
    ifinfomsg info;
    rtattr attribute;
    char name[IFNAMSIZ];
  } request = {};
  if (name.size() >= sizeof(request.name)) return false;
  request.header.nlmsg_len = sizeof(request);
  request.header.nlmsg_type = RTM_GETLINK;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  request.header.nlmsg_seq = sequence;
  request.attribute.rta_type = IFLA_IFNAME;
  request.attribute.rta_len = sizeof(request.attribute) + sizeof(request.name);
  memcpy(request.name, name.data(), name.size());
  return Send(netlink, &request, sizeof(request));
}

bool RequestAddresses(int netlink, uint32_t sequence) {
  struct {
    nlmsghdr header;
    ifaddrmsg info;
  } request = {};
  request.header.nlmsg_len = sizeof(request);
  request.header.nlmsg_type = RTM_GETADDR;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.header.nlmsg_seq = sequence;
  return Send(netlink, &request, sizeof(request));
}

}  // namespace

bool HandleNetlink(LinkWatch& watch, std::string_view name, const uint8_t* bytes, size_t length) {
  bool isReplyOver = false;
  Piece datagram = {bytes, length};
  nlmsghdr message;
  Piece body;
  while (TakeMessage(datagram, message, body)) {
    // What a list consists of changed while it was made.
    if ((message.nlmsg_flags & NLM_F_DUMP_INTR) != 0) watch.mustReread = true;
    switch (message.nlmsg_type) {
      case RTM_NEWLINK:
      case RTM_DELLINK:
        HandleLinkMessage(watch, name, message, body);
        break;
      case RTM_NEWADDR:
      case RTM_DELADDR:
        HandleAddressMessage(watch, message, body);
        break;
      case NLMSG_DONE:
      case NLMSG_ERROR:
        if (message.nlmsg_seq == watch.sequence) isReplyOver = true;
        break;
      default:
        break;
    }
  }
  return isReplyOver;
}

int OpenNetlink() {
  const int netlink = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  if (netlink < 0) return -1;
  sockaddr_nl groups{};
  groups.nl_family = AF_NETLINK;
  groups.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
  if (bind(netlink, reinterpret_cast<const sockaddr*>(&groups), sizeof(groups)) == 0) {
    return netlink;
  }
  const int error = errno;
  close(netlink);
  errno = error;
  return -1;
}

void TakeNetlink(int netlink, LinkWatch& watch, std::string_view name, uint8_t* buffer) {
  bool isReplyOver = false;
  for (int i = 0; i < kTakenAtOnce && TakeWaiting(netlink, watch, name, buffer, isReplyOver); ++i) {
  }
}

bool ReadLink(int netlink, LinkWatch& watch, std::string_view name, uint8_t* buffer) {
  for (int attempt = 0; attempt < kReadAttempts; ++attempt) {
    // A socket that is full has no space for the reply.
    bool isReplyOver = false;
    while (TakeWaiting(netlink, watch, name, buffer, isReplyOver)) {
    }
    Forget(watch);
    const auto isTold = [&](bool isAsked) {
      return isAsked && WaitForReply(netlink, watch, name, buffer);
    };
    if (!isTold(RequestLink(netlink, name, ++watch.sequence))) break;
    watch.mustReread = false;
    if (watch.index == 0) return true;
    if (!isTold(RequestAddresses(netlink, ++watch.sequence))) break;
    if (!watch.mustReread) return true;
  }
  watch.mustReread = true;
  return false;
}
