// The state that the responder's layers share: the one process-wide responder state and the
// multicast socket's descriptor, with the operations that only read or set them.
#pragma once

#include <netinet/in.h>
#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "base/annotations.h"
#include "base/mutex.h"
#include "base/responder.h"
#include "base/shared.h"
#include "base/text.h"

struct ServiceEntry;

/// Interface slots: the bridge, and a reserved one that is never opened.
constexpr uint32_t kInterfaceSlots = 2;
constexpr uint32_t kBridgeSlot = 0;
constexpr uint32_t kReservedSlot = 1;
constexpr char kReservedName[] = "qxSkipDevName";
constexpr size_t kInterfaceNameSize = 15;

/// Multicast DNS group and port (RFC 6762, section 3).
constexpr char kMdnsGroup[] = "224.0.0.251";
constexpr uint16_t kMdnsPort = 5353;

/// Everything that the threads of the process share; the one instance is `responderState`. Unless
/// said otherwise the responder thread writes a field and any thread reads it.
struct ResponderState {
  /// 0 = responder not yet up, 1 = an interface is connected. Never goes back to 0.
  SharedFlag initStatus{0};
  /// The current host name without its domain. See GetDeviceName and SetDeviceName.
  SharedText deviceName;
  /// Interface names by slot. Written before any other thread reads them.
  char interfaceName[kInterfaceSlots][kInterfaceNameSize];
  /// By slot: 1 while the slot's multicast socket is usable.
  SharedFlag connected[kInterfaceSlots] = {SharedFlag(0), SharedFlag(0)};
  /// By slot: the IPv4 address in network byte order, INADDR_NONE while none is known. Kept as the
  /// word that the dotted text stands for, so that a reader never sees half of a change. See
  /// GetInterfaceAddress. Written by the responder thread and by the answering thread.
  SharedWord<in_addr_t> interfaceAddress[kInterfaceSlots] = {SharedWord<in_addr_t>(INADDR_NONE),
                                                             SharedWord<in_addr_t>(INADDR_NONE)};
  /// First entry of the service registry, null when it is empty.
  ServiceEntry* registryHead GUARDED_BY(registryMutex);
  /// Guards the registry: its head, its entries and their links.
  Mutex registryMutex;
  /// Woken by ReleaseWaiters.
  pthread_cond_t stateCond = PTHREAD_COND_INITIALIZER;
  /// Where every packet goes: 224.0.0.251, port 5353. Written before any packet is sent.
  sockaddr_in mdnsDestination;
  /// Set to 1 by SetNotifyFlag.
  SharedFlag notifyFlag{0};
  /// Set to 1 by SetWaitFlag, to 0 by ReleaseWaiters.
  SharedFlag waitFlag{0};
};

extern ResponderState responderState;

/// The socket that sends and receives multicast DNS; -1 while none is open.
extern SharedWord<int32_t> multicastSocket;

/// Replaces the device name, cut to kDeviceNameMax characters. Responder thread only.
void SetDeviceName(std::string_view name);

/// The slot's current address as dotted text, empty while none is known. Any thread.
AddressText GetInterfaceAddress(uint32_t slot);

/// True while any slot's multicast socket is usable. Any thread.
bool IsAnyInterfaceConnected();

/// Sets the notify flag. Any thread.
void SetNotifyFlag();

/// Sets the wait flag. Any thread.
void SetWaitFlag();

/// Clears the wait flag, then wakes every waiter of the state's condition variable. Any thread,
/// while the responder runs.
void ReleaseWaiters();
