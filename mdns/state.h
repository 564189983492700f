// The state that all layers share: the one process-wide responder state, the stop flag and the
// multicast socket's descriptor, with the operations that only read or set them.
#pragma once

#include <netinet/in.h>
#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "base/annotations.h"
#include "base/gate.h"
#include "base/mutex.h"
#include "base/shared.h"

struct ServiceEntry;

/// The longest device name, in characters.
constexpr size_t kDeviceNameMax = SharedText::kMaxLength;
/// A field for a device name: the longest one and its terminator.
constexpr size_t kDeviceNameSize = kDeviceNameMax + 1;
/// The domain that follows every name of this responder.
constexpr char kLocalDomain[] = ".local";

/// Interface slots: the bridge, and a reserved one that is never opened.
constexpr uint32_t kInterfaceSlots = 2;
constexpr uint32_t kBridgeSlot = 0;
constexpr uint32_t kReservedSlot = 1;
constexpr char kBridgeName[] = "br0";
constexpr char kReservedName[] = "qxSkipDevName";
constexpr size_t kInterfaceNameSize = 15;

/// Bytes of a MAC address.
constexpr size_t kMacSize = 6;

/// Multicast DNS group and port (RFC 6762, section 3).
constexpr char kMdnsGroup[] = "224.0.0.251";
constexpr uint16_t kMdnsPort = 5353;

/// Everything that the threads of the process share; the one instance is `responderState`. Unless
/// said otherwise the responder thread writes a field and any thread reads it.
struct ResponderState {
  /// MAC address of the bridge; zeros when it has none. Written by `main` before any thread starts.
  uint8_t hw_addr[kMacSize];
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

/// MAC address of the bridge, the state's own field under the name that other code knows it by.
inline constexpr uint8_t (&hw_addr)[kMacSize] = responderState.hw_addr;

/// Stop flag: 0 = run, 1 = stop. Written by the signal handler and by `main`; every loop polls it.
extern SharedFlag bTerminate;

/// The socket that sends and receives multicast DNS; -1 while none is open.
extern SharedWord<int32_t> multicastSocket;

/// Whoever uses the descriptor of `multicastSocket` beside the thread that receives on it is
/// inside: every sender from the moment on that its packet is handed over. The responder thread
/// closes the gate at the stop and the descriptor when nobody is inside any more.
extern Gate multicastSocketUsers;

/// 1 once the responder is up, else 0. Any thread.
uint32_t GetBonjourInitStatus();

/// Copies the first min(size, length) characters of the device name into `buffer` and returns
/// `buffer`. No terminator is written: callers hand a zero-filled buffer and a size one below its
/// capacity. Any thread; sees the name before or after a change, never a mixture.
char* GetDeviceName(char* buffer, size_t size);

/// Replaces the device name, cut to kDeviceNameMax characters. Responder thread only.
void SetDeviceName(std::string_view name);

/// An IPv4 address in dotted form, zero-terminated.
struct AddressText {
  char text[INET_ADDRSTRLEN];
};

/// The dotted form of an address in network byte order; the empty text for INADDR_NONE.
AddressText FormatAddress(in_addr_t address);

/// The slot's current address as dotted text, empty while none is known. Any thread.
AddressText GetInterfaceAddress(uint32_t slot);

/// True while any slot's multicast socket is usable. Any thread.
bool IsAnyInterfaceConnected();

/// True once a stop was asked for. Any thread.
inline bool IsTerminating() { return bTerminate.Get() != 0; }

/// Sets the notify flag. Any thread.
void SetNotifyFlag();

/// Sets the wait flag. Any thread.
void SetWaitFlag();

/// Clears the wait flag, then wakes every waiter of the state's condition variable. Any thread,
/// while the responder runs.
void ReleaseWaiters();
