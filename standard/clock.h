// Times, in milliseconds of a clock that never goes back.
#pragma once

#include <cstdint>

/// A time that never comes.
constexpr int64_t kNever = INT64_MAX;

/// A past time in 32 bits; 0 for never. How long ago it was can be told for 49 days. After that it
/// looks as if it had just been, once: who relies on it waits in vain for as long as he would then.
using PastTime = uint32_t;

/// The time as a PastTime.
constexpr PastTime ToPast(int64_t time) {
  const auto low = static_cast<uint32_t>(time);
  return low != 0 ? low : UINT32_MAX;
}

/// How long ago it was; kNever for never.
constexpr int64_t AgeOf(PastTime past, int64_t now) {
  return past != 0 ? int64_t{static_cast<uint32_t>(now) - past} : kNever;
}

/// The earlier of two times.
constexpr int64_t Earlier(int64_t a, int64_t b) { return a < b ? a : b; }
