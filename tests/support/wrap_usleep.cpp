#include <unistd.h>

#include "tests/support/fault.h"

std::atomic<void (*)(unsigned)> onUsleep{nullptr};

extern "C" {
int __real_usleep(useconds_t microseconds);
int __wrap_usleep(useconds_t microseconds);

int __wrap_usleep(useconds_t microseconds) {
  void (*const hook)(unsigned) = onUsleep.load();
  if (hook == nullptr) return __real_usleep(microseconds);
  hook(microseconds);
  return 0;
}
}
