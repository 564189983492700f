#include "tests/standard/other_host.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/ethtool.h>
#include <linux/if_tun.h>
#include <linux/sockios.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "tests/support/network.h"

namespace {

constexpr int kPatienceMilliseconds = 10000;
const uint16_t kMdnsPort = htons(5353);

// The headers of a UDP datagram on the wire; without options, and without a checksum of UDP.
struct __attribute__((packed)) Headers {
  ether_header ethernet;
  iphdr ip;
  udphdr udp;
};

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
  ifreq request = InterfaceRequest(name);
  request.ifr_data = reinterpret_cast<char*>(&link);
  ControlInterface(SIOCETHTOOL, &request, "ETHTOOL_GLINK");
  return link.data == 1;
}

bool IsReadable(int descriptor, int milliseconds) {
  pollfd entry = {descriptor, POLLIN, 0};
  return poll(&entry, 1, milliseconds) == 1;
}

}  // namespace

OtherHost::OtherHost(const char* bridge) : tap(open("/dev/net/tun", O_RDWR | O_CLOEXEC)) {
  Require(tap.IsOpen(), "/dev/net/tun");
  ifreq request = InterfaceRequest("wire%d");
  request.ifr_flags = IFF_TAP | IFF_NO_PI;
  Require(ioctl(tap.Get(), TUNSETIFF, &request) == 0, "TUNSETIFF");
  ifreq port = InterfaceRequest(bridge);
  port.ifr_ifindex = static_cast<int>(if_nametoindex(request.ifr_name));
  ControlInterface(SIOCBRADDIF, &port, "SIOCBRADDIF");
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
