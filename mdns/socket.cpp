// The multicast socket and the interface's address.
#include "mdns/socket.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "base/interface.h"
#include "base/log.h"
#include "base/responder.h"
#include "base/text.h"
#include "mdns/state.h"
#include "records/sender.h"

namespace {

constexpr size_t kDeviceOptionSize = 32;

std::string_view SlotName(uint32_t slot) { return FieldText(responderState.interfaceName[slot]); }

void LogRequestFailure(const char* request, uint32_t slot) {
  const int error = errno;  // as the request left it, before a line is written
  char message[64];
  snprintf(message, sizeof(message), "[Bonjour] ioctl %s failed", request);
  LogLine({message, ":", responderState.interfaceName[slot]});
  LogError(message, error);
}

bool SetReuseAddress(int socket) {
  const int on = 1;
  return setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) == 0;
}

bool BindToMdnsPort(int socket) {
  sockaddr_in any{};
  any.sin_family = AF_INET;
  any.sin_port = htons(kMdnsPort);
  any.sin_addr.s_addr = htonl(INADDR_ANY);
  return bind(socket, reinterpret_cast<const sockaddr*>(&any), sizeof(any)) == 0;
}

bool BindToBridge(int socket) {
  char device[kDeviceOptionSize];
  CopyText(device, SlotName(kBridgeSlot));
  return setsockopt(socket, SOL_SOCKET, SO_BINDTODEVICE, device, sizeof(device)) == 0;
}

bool JoinGroup(int socket) {
  const ip_mreq membership = {responderState.mdnsDestination.sin_addr,
                              {responderState.interfaceAddress[kBridgeSlot].Get()}};
  return setsockopt(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof(membership)) == 0;
}

// The outgoing interface is left to the device binding.
bool SetAnyMulticastInterface(int socket) {
  const in_addr any = {htonl(INADDR_ANY)};
  return setsockopt(socket, IPPROTO_IP, IP_MULTICAST_IF, &any, sizeof(any)) == 0;
}

bool DisableLoopback(int socket) {
  const uint8_t off = 0;
  return setsockopt(socket, IPPROTO_IP, IP_MULTICAST_LOOP, &off, sizeof(off)) == 0;
}

bool SetReceiveTimeout(int socket) {
  const timeval timeout = {kReceiveTimeoutSeconds, 0};
  return setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)) == 0;
}

struct SetupStep {
  bool (*apply)(int socket);
  const char* failure;
};

constexpr SetupStep kSetupSteps[] = {
    {SetReuseAddress, "[Bonjour] setsockopt SO_REUSEADDR"},
    {BindToMdnsPort, "[Bonjour] discovery bind"},
    {BindToBridge, "[Bonjour] setsockopt SO_BINDTODEVICE"},
    {JoinGroup, "[Bonjour] setsockopt IP_ADD_MEMBERSHIP"},
    {SetAnyMulticastInterface, "[Bonjour] setsockopt IP_MULTICAST_IF"},
    {DisableLoopback, "[Bonjour] setsockopt IP_MULTICAST_LOOP"},
    {SetReceiveTimeout, "[Bonjour] setsockopt SO_RCVTIMEO"},
};

}  // namespace

uint32_t UpdateHostIP(uint32_t slot) {
  InterfaceQuery interface(SlotName(slot));
  if (!interface.IsOpen()) return 0;
  if (!interface.Exists()) {
    LogRequestFailure("SIOCGIFFLAGS", slot);
    return 0;
  }
  in_addr_t address = INADDR_NONE;
  if (!interface.ReadAddress(address)) {
    LogRequestFailure("SIOCGIFADDR", slot);
    return 0;
  }
  responderState.interfaceAddress[slot].Set(address);
  return 1;
}

uint32_t SocketSetup_For_Interface_N() {
  if (UpdateHostIP(kBridgeSlot) == 0) {
    LogUpdateHostIPError("SocketSetup_For_Interface_N");
    return 0;
  }
  const int32_t socketDescriptor = socket(AF_INET, SOCK_DGRAM, 0);
  multicastSocket.Set(socketDescriptor);
  if (socketDescriptor < 0) return 0;

  for (const SetupStep& step : kSetupSteps) {
    if (!step.apply(socketDescriptor)) {
      LogError(step.failure, errno);
      CloseMulticastSocket();
      return 0;
    }
  }
  responderState.connected[kBridgeSlot].Set(1);
  LogLine({"[Bonjour] Interface: ", responderState.interfaceName[kBridgeSlot], " is connected"});
  return 1;
}

void EndReceive() {
  const GatePass use = UseAsSender();
  // Packets can still be sent. The kernel wakes the receiver of an unconnected socket too, though
  // it calls that an error.
  if (use.IsInside()) shutdown(multicastSocket.Get(), SHUT_RD);
}

void CloseMulticastSocket() {
  const int32_t socketDescriptor = multicastSocket.Get();
  responderState.connected[kBridgeSlot].Set(0);
  multicastSocket.Set(-1);
  close(socketDescriptor);
}
