#include <ctime>

#include "tests/support/fault.h"

std::atomic<time_t> monotonicSeconds{-1};

extern "C" {
int __real_clock_gettime(clockid_t clock, timespec* now);
int __wrap_clock_gettime(clockid_t clock, timespec* now);

int __wrap_clock_gettime(clockid_t clock, timespec* now) {
  const time_t seconds = monotonicSeconds.load();
  if (clock != CLOCK_MONOTONIC || seconds < 0) return __real_clock_gettime(clock, now);
  *now = {seconds, 0};
  return 0;
}
}
