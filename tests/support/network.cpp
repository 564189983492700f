#include "tests/support/network.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/ethtool.h>
#include <linux/if_tun.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kPatienceMilliseconds = 10000;
// Ethernet, IPv4 without options, UDP.
constexpr size_t kEthernetSize = 14;
constexpr size_t kIpSize = 20;
constexpr size_t kUdpSize = 8;
constexpr size_t kPayloadOffset = kEthernetSize + kIpSize + kUdpSize;

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

uint16_t Word(std::span<const uint8_t> bytes, size_t offset) {
  return static_cast<uint16_t>(bytes[offset] << 8 | bytes[offset + 1]);
}

void PutWord(Bytes& bytes, size_t offset, uint32_t value) {
  bytes[offset] = static_cast<uint8_t>(value >> 8);
  bytes[offset + 1] = static_cast<uint8_t>(value);
}

// RFC 1071.
uint16_t Checksum(std::span<const uint8_t> bytes) {
  uint32_t sum = 0;
  for (size_t i = 0; i + 1 < bytes.size(); i += 2) sum += Word(bytes, i);
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

void AddBridge(const char* name) {
  char field[IFNAMSIZ] = {};
  snprintf(field, sizeof(field), "%s", name);
  Control(SIOCBRADDBR, field, "SIOCBRADDBR");
}

void RemoveBridge(const char* name) {
  char field[IFNAMSIZ] = {};
  snprintf(field, sizeof(field), "%s", name);
  Control(SIOCBRDELBR, field, "SIOCBRDELBR");
}

void SetAddress(const char* name, const char* address) {
  ifreq request = Request(name);
  const sockaddr_in inet = SocketAddress(address, 0);
  memcpy(&request.ifr_addr, &inet, sizeof(inet));
  Control(SIOCSIFADDR, &request, "SIOCSIFADDR");
  request = Request(name);
  const sockaddr_in mask = SocketAddress("255.255.255.0", 0);
  memcpy(&request.ifr_netmask, &mask, sizeof(mask));
  Control(SIOCSIFNETMASK, &request, "SIOCSIFNETMASK");
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
  Bytes frame(kPayloadOffset + payload.size());
  // The group's Ethernet address, then the other host's own (locally administered).
  const Bytes ethernet = Wire("01 00 5E 00 00 FB 02 00 00 00 00 99 08 00");
  std::copy(ethernet.begin(), ethernet.end(), frame.begin());
  frame[kEthernetSize] = 0x45;
  PutWord(frame, kEthernetSize + 2, static_cast<uint32_t>(kIpSize + kUdpSize + payload.size()));
  frame[kEthernetSize + 8] = 255;
  frame[kEthernetSize + 9] = IPPROTO_UDP;
  const in_addr from = SocketAddress(source, 0).sin_addr;
  const in_addr group = SocketAddress("224.0.0.251", 0).sin_addr;
  memcpy(&frame[kEthernetSize + 12], &from, sizeof(from));
  memcpy(&frame[kEthernetSize + 16], &group, sizeof(group));
  PutWord(frame, kEthernetSize + 10, Checksum(std::span(frame).subspan(kEthernetSize, kIpSize)));
  // UDP without a checksum (RFC 768).
  PutWord(frame, kEthernetSize + kIpSize, 5353);
  PutWord(frame, kEthernetSize + kIpSize + 2, 5353);
  PutWord(frame, kEthernetSize + kIpSize + 4, static_cast<uint32_t>(kUdpSize + payload.size()));
  std::copy(payload.begin(), payload.end(), frame.begin() + kPayloadOffset);
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
    frame.resize(static_cast<size_t>(received));
    if (frame.size() < kPayloadOffset || Word(frame, 12) != 0x0800 ||
        frame[kEthernetSize] != 0x45 || frame[kEthernetSize + 9] != IPPROTO_UDP ||
        Word(frame, kEthernetSize + kIpSize + 2) != 5353) {
      continue;
    }
    const size_t size = Word(frame, kEthernetSize + kIpSize + 4) - kUdpSize;
    frame.erase(frame.begin(), frame.begin() + kPayloadOffset);
    frame.resize(size);
    return frame;
  }
}
