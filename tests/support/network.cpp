#include "tests/support/network.h"

#include <arpa/inet.h>
#include <linux/sockios.h>
#include <net/if_arp.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

void Require(bool good, const char* what) {
  if (good) return;
  perror(what);
  abort();
}

ifreq InterfaceRequest(const char* name) {
  ifreq request{};
  snprintf(request.ifr_name, sizeof(request.ifr_name), "%s", name);
  return request;
}

void ControlInterface(unsigned long operation, void* argument, const char* what) {
  const Descriptor control(socket(AF_INET, SOCK_DGRAM, 0));
  Require(ioctl(control.Get(), operation, argument) == 0, what);
}

OwnNetwork::OwnNetwork() {
  Require(unshare(CLONE_NEWNET) == 0, "unshare(CLONE_NEWNET)");
  SetInterfaceUp("lo", true);
}

void AddBridge(const char* name) {
  ControlInterface(SIOCBRADDBR, InterfaceRequest(name).ifr_name, "SIOCBRADDBR");
}

void RemoveBridge(const char* name) {
  ControlInterface(SIOCBRDELBR, InterfaceRequest(name).ifr_name, "SIOCBRDELBR");
}

void SetMac(const char* name, const uint8_t (&mac)[6]) {
  ifreq request = InterfaceRequest(name);
  request.ifr_hwaddr.sa_family = ARPHRD_ETHER;
  memcpy(request.ifr_hwaddr.sa_data, mac, sizeof(mac));
  ControlInterface(SIOCSIFHWADDR, &request, "SIOCSIFHWADDR");
}

void SetAddress(const char* name, const char* address) {
  ifreq request = InterfaceRequest(name);
  const sockaddr_in inet = SocketAddress(address, 0);
  memcpy(&request.ifr_addr, &inet, sizeof(inet));
  ControlInterface(SIOCSIFADDR, &request, "SIOCSIFADDR");
}

void SetInterfaceUp(const char* name, bool up) {
  ifreq request = InterfaceRequest(name);
  ControlInterface(SIOCGIFFLAGS, &request, "SIOCGIFFLAGS");
  request.ifr_flags =
      static_cast<short>(up ? request.ifr_flags | IFF_UP : request.ifr_flags & ~IFF_UP);
  ControlInterface(SIOCSIFFLAGS, &request, "SIOCSIFFLAGS");
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
  SetReceiveTimeout(10000);
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
  Bytes bytes(65536);
  const ssize_t received = recv(Get(), bytes.data(), bytes.size(), 0);
  if (received < 0) return std::nullopt;
  bytes.resize(static_cast<size_t>(received));
  return bytes;
}

bool UdpSocket::HasNoPacket() const {
  uint8_t byte;
  return recv(Get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0;
}
