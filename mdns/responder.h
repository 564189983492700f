// The responder thread: start-up, supervision of the interface, withdrawal at the end.
#pragma once

#include <cstdint>

#include "mdns/state.h"

/// Seconds for which the socket set-up is tried at start before the responder goes on without it.
constexpr int64_t kSetupLimitSeconds = 5;
/// Pause between two looks at an interface that was not usable at start.
constexpr unsigned kSupervisionSeconds = 10;

/// Argument of BonjourServiceInit. Owned by `main`, outlives the responder thread.
struct ResponderStartRecord {
  char deviceName[kDeviceNameSize];  ///< host name without domain, zero-terminated
  uint32_t probeRequest;             ///< non-zero: probe the name on the link before using it
};

/// Thread body; `argument` is a ResponderStartRecord. Runs the responder until a stop is asked for,
/// then withdraws what is registered and releases socket, mutex and condition variable. Once in a
/// process.
void* BonjourServiceInit(void* argument);
