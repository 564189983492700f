#include "tests/support/network.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/ethtool.h>
#include <linux/if_tun.h>
#include <linux/sockios.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kPatienceMilliseconds = 10000;
const uint16_t kMdnsPort = htons(5353);

// The headers of a UDP datagram on the wire; without options, and without a checksum of UDP.
struct __attribute__((packed)) Headers {
  ether_header ethernet;
  iphdr ip;
  udphdr udp;
};

void Require(bool good, const char* what) {
  if (good) return;
  perror(what);
  abort();
}

ifreq Request(const char* name) {
  ifreq request{};
  snprintf(request.ifr_name, sizeof(request.ifr_name), "%s", name);
  return request;
}

void Control(unsigned long operation, void* argument, const char* what) {
  const Descriptor control(socket(AF_INET, SOCK_DGRAM, 0));
  Require(ioctl(control.Get(), operation, argument) == 0, what);
}

// RFC 1071, of a header that has none yet.
uint16_t Checksum(const iphdr& header) {
  uint16_t words[sizeof(header) / 2];
  memcpy(words, &header, sizeof(header));
  uint32_t sum = 0;
  for (const uint16_t word : words) sum += word;
  while (sum >> 16 != 0) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}

// The kernel notices a carrier by itself within a second, and what an interface sends before is
// lost in silence; the question for its link state makes it look at once.
bool HasLink(const char* name) {
  ethtool_value link = {ETHTOOL_GLINK, 0};
  ifreq request = Request(name);
  request.ifr_data = reinterpret_cast<char*>(&link);
  Control(SIOCETHTOOL, &request, "ETHTOOL_GLINK");
  return link.data == 1;
}

bool IsReadable(int descriptor, int milliseconds) {
  pollfd entry = {descriptor, POLLIN, 0};
  return poll(&entry, 1, milliseconds) == 1;
}

}  // namespace

void EnterOwnNetwork() {
  Require(unshare(CLONE_NEWNET) == 0, "unshare(CLONE_NEWNET)");
  SetInterfaceUp("lo", true);
}

void AddBridge(const char* name) { Control(SIOCBRADDBR, Request(name).ifr_name, "SIOCBRADDBR"); }

void RemoveBridge(const char* name) { Control(SIOCBRDELBR, Request(name).ifr_name, "SIOCBRDELBR"); }

void SetMac(const char* name, const uint8_t (&mac)[6]) {
  ifreq request = Request(name);
  request.ifr_hwaddr.sa_family = ARPHRD_ETHER;
  memcpy(request.ifr_hwaddr.sa_data, mac, sizeof(mac));
  Control(SIOCSIFHWADDR, &request, "SIOCSIFHWADDR");
}

void SetAddress(const char* name, const char* address) {
  ifreq request = Request(name);
  const sockaddr_in inet = SocketAddress(address, 0);
  memcpy(&request.ifr_addr, &inet, sizeof(inet));
  Control(SIOCSIFADDR, &request, "SIOCSIFADDR");
}

void SetInterfaceUp(const char* name, bool up) {
  ifreq request = Request(name);
  Control(SIOCGIFFLAGS, &request, "SIOCGIFFLAGS");
  request.ifr_flags =
      static_cast<short>(up ? request.ifr_flags | IFF_UP : request.ifr_flags & ~IFF_UP);
  Control(SIOCSIFFLAGS, &request, "SIOCSIFFLAGS");
}

sockaddr_in SocketAddress(const char* dotted, uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  Require(inet_pton(AF_INET, dotted, &address.sin_addr) == 1, dotted);
  return address;
}

UdpSocket::UdpSocket(const char* dotted, uint16_t port)
    : descriptor(socket(AF_INET, SOCK_DGRAM, 0)) {
  const sockaddr_in address = SocketAddress(dotted, port);
  Require(bind(Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "bind");
}

sockaddr_in UdpSocket::Name() const {
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  Require(getsockname(Get(), reinterpret_cast<sockaddr*>(&address), &size) == 0, "getsockname");
  return address;
}

void UdpSocket::SetReceiveTimeout(int milliseconds) const {
  const timeval timeout = {milliseconds / 1000, milliseconds % 1000 * 1000L};
  Require(setsockopt(Get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)) == 0,
          "SO_RCVTIMEO");
}

void UdpSocket::Send(std::span<const uint8_t> bytes, const sockaddr_in& destination) const {
  const ssize_t sent = sendto(Get(), bytes.data(), bytes.size(), 0,
                              reinterpret_cast<const sockaddr*>(&destination), sizeof(destination));
  Require(sent == static_cast<ssize_t>(bytes.size()), "sendto");
}

std::optional<Bytes> UdpSocket::Receive() const {
  if (!IsReadable(Get(), kPatienceMilliseconds)) return std::nullopt;
  Bytes bytes(65536);
  const ssize_t received = recv(Get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
  Require(received >= 0, "recv");
  bytes.resize(static_cast<size_t>(received));
  return bytes;
}

bool UdpSocket::HasNoPacket() const { return !IsReadable(Get(), 0); }

OtherHost::OtherHost(const char* bridge) : tap(open("/dev/net/tun", O_RDWR | O_CLOEXEC)) {
  Require(tap.IsOpen(), "/dev/net/tun");
  ifreq request = Request("wire%d");
  request.ifr_flags = IFF_TAP | IFF_NO_PI;
  Require(ioctl(tap.Get(), TUNSETIFF, &request) == 0, "TUNSETIFF");
  ifreq port = Request(bridge);
  port.ifr_ifindex = static_cast<int>(if_nametoindex(request.ifr_name));
  Control(SIOCBRADDIF, &port, "SIOCBRADDIF");
  SetInterfaceUp(request.ifr_name, true);
  Require(HasLink(request.ifr_name), "a link at the wire");
  Require(HasLink(bridge), "a link at the bridge");
}

void OtherHost::SendMulticast(const char* source, std::span<const uint8_t> payload) const {
  const auto udpSize = static_cast<uint16_t>(sizeof(udphdr) + payload.size());
  Headers headers = {};
  // The group's Ethernet address, then the other host's own (locally administered).
  headers.ethernet = {{0x01, 0, 0x5E, 0, 0, 0xFB}, {0x02, 0, 0, 0, 0, 0x99}, htons(ETHERTYPE_IP)};
  iphdr ip = {};
  ip.version = 4;
  ip.ihl = 5;
  ip.tot_len = htons(static_cast<uint16_t>(sizeof(iphdr) + udpSize));
  ip.ttl = 255;
  ip.protocol = IPPROTO_UDP;
  ip.saddr = SocketAddress(source, 0).sin_addr.s_addr;
  ip.daddr = SocketAddress("224.0.0.251", 0).sin_addr.s_addr;
  ip.check = Checksum(ip);
  headers.ip = ip;
  headers.udp.source = kMdnsPort;
  headers.udp.dest = kMdnsPort;
  headers.udp.len = htons(udpSize);
  Bytes frame(sizeof(headers));
  memcpy(frame.data(), &headers, sizeof(headers));
  frame.insert(frame.end(), payload.begin(), payload.end());
  Require(write(tap.Get(), frame.data(), frame.size()) == static_cast<ssize_t>(frame.size()),
          "write");
}

std::optional<Bytes> OtherHost::ReceiveMulticast() const {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point end = Clock::now() + std::chrono::milliseconds(kPatienceMilliseconds);
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    if (left <= 0 || !IsReadable(tap.Get(), static_cast<int>(left))) return std::nullopt;
    Bytes frame(65536);
    const ssize_t received = read(tap.Get(), frame.data(), frame.size());
    Require(received >= 0, "read");
    Headers headers;
    memcpy(&headers, frame.data(), sizeof(headers));
    const bool isUdp = headers.ethernet.ether_type == htons(ETHERTYPE_IP) &&
                       headers.ip.version == 4 && headers.ip.ihl == 5 &&
                       headers.ip.protocol == IPPROTO_UDP;
    if (!isUdp || headers.udp.dest != kMdnsPort) continue;
    const auto payload = frame.begin() + sizeof(headers);
    return Bytes(payload, payload + (ntohs(headers.udp.len) - sizeof(udphdr)));
  }
}
