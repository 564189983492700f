// The responder as app/ and printer/ know it. Each responder defines these operations; the words
// that they share with the rest of the process are base/responder.cpp's.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/shared.h"

/// The longest device name, in characters.
constexpr size_t kDeviceNameMax = SharedText::kMaxLength;
/// A field for a device name: the longest one and its terminator.
constexpr size_t kDeviceNameSize = kDeviceNameMax + 1;
/// The domain that follows every name of a responder.
constexpr char kLocalDomain[] = ".local";
/// The longest instance name of a service, in characters, and a field for it.
constexpr size_t kServiceNameMax = 128;
constexpr size_t kServiceNameSize = kServiceNameMax + 1;

/// The interface on which everything is published.
constexpr char kBridgeName[] = "br0";
/// Bytes of a MAC address.
constexpr size_t kMacSize = 6;

/// MAC address of the bridge; zeros when it has none. Written by `main` before any thread starts.
extern uint8_t hw_addr[kMacSize];

/// Stop flag: 0 = run, 1 = stop. Written by the signal handler and by `main`; every loop polls it.
extern SharedFlag bTerminate;

/// True once a stop was asked for. Any thread.
inline bool IsTerminating() { return bTerminate.Get() != 0; }

/// Argument of BonjourServiceInit. Owned by `main`, outlives the responder thread.
struct ResponderStartRecord {
  char deviceName[kDeviceNameSize];  ///< host name without domain, zero-terminated
  uint32_t probeRequest;             ///< non-zero: probe the name on the link before using it
};

/// Thread body; `argument` is a ResponderStartRecord. Runs the responder until a stop is asked for,
/// then withdraws what is registered and releases all that it holds. Some responders then end the
/// process, with status 0, instead of returning. Once in a process.
void* BonjourServiceInit(void* argument);

/// The process is about to stop, bTerminate is set: wakes up the responder's threads that wait for
/// packets. Nothing happens when none does. From here on the initial thread only joins others.
/// Initial thread.
void EndReceive();

/// 1 once the responder is up, 0 before. Another value, which only some responders have: a stop was
/// asked for first, it will not be up. Any thread.
uint32_t GetBonjourInitStatus();

/// Copies the first min(size, length) characters of the device name into `buffer` and returns
/// `buffer`. No terminator is written: callers hand a zero-filled buffer and a size one below its
/// capacity. Any thread; sees the name before or after a change, never a mixture.
char* GetDeviceName(char* buffer, size_t size);

/// The device name, zero-terminated.
struct DeviceName {
  char text[kDeviceNameSize];
};
/// The device name as GetDeviceName gives it. Any thread.
inline DeviceName CurrentDeviceName() {
  DeviceName name = {};
  GetDeviceName(name.text, kDeviceNameMax);
  return name;
}

/// Publishes a service (RFC 6763). `serviceName` is the instance name, 1 to kServiceNameMax
/// characters; `serviceType` reads like "_ipp._tcp", at most 32; `serviceDomain` is kLocalDomain;
/// `txt` holds the TXT strings separated by line feeds, or is null with `txtLength` 0; `port` is
/// below 65536. The responder keeps the reference `txt`: the caller keeps the text alive and
/// unchanged while IsTextRegistered says so. Returns 1, or 0 with a message. At the stop nothing is
/// registered any more. Any thread.
uint32_t RegisterOneService(const char* serviceName, const char* serviceType,
                            const char* serviceDomain, const char* txt, int32_t txtLength,
                            uint32_t port);

/// Withdraws a service; the parameters are those of its registration, but `txt` and `txtLength`
/// may be null and 0. Returns 1, or 0 with a message. Any thread.
uint32_t UnRegisterOneService(const char* serviceName, const char* serviceType,
                              const char* serviceDomain, const char* txt, int32_t txtLength,
                              uint32_t port);

/// True while a registered service refers to `txt` (the reference, not the characters). Any thread.
bool IsTextRegistered(const char* txt);

/// True when the responder copies the texts that it is given: they are the caller's to free as soon
/// as RegisterOneService returns. Always the same. Any thread.
bool AreTextsCopied();
