// Times, in milliseconds of a clock that never goes back.
#pragma once

#include <cstdint>

/// A time that never comes.
constexpr int64_t kNever = INT64_MAX;

/// The earlier of two times.
constexpr int64_t Earlier(int64_t a, int64_t b) { return a < b ? a : b; }
