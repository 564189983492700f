// What the kernel says of a network interface.
#include "base/interface.h"

#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstring>

#include "base/text.h"

InterfaceQuery::InterfaceQuery(std::string_view name) : control(socket(AF_INET, SOCK_DGRAM, 0)) {
  CopyText(request.ifr_name, name);
}

bool InterfaceQuery::ReadMac(uint8_t (&mac)[kMacSize]) {
  if (ioctl(control.Get(), SIOCGIFHWADDR, &request) < 0) return false;
  memcpy(mac, request.ifr_hwaddr.sa_data, sizeof(mac));
  return true;
}

bool InterfaceQuery::Exists() { return ioctl(control.Get(), SIOCGIFFLAGS, &request) >= 0; }

bool InterfaceQuery::ReadAddress(in_addr_t& address) {
  if (ioctl(control.Get(), SIOCGIFADDR, &request) < 0) return false;
  sockaddr_in name{};
  memcpy(&name, &request.ifr_addr, sizeof(name));
  address = name.sin_addr.s_addr;
  return true;
}
