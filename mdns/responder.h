// The responder thread: start-up, supervision of the interface, withdrawal at the end.
#pragma once

#include <cstdint>

/// Seconds for which the socket set-up is tried at start before the responder goes on without it.
constexpr int64_t kSetupLimitSeconds = 5;
/// Pause between two looks at an interface that was not usable at start.
constexpr unsigned kSupervisionSeconds = 10;
