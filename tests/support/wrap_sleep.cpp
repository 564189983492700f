#include <unistd.h>

#include "tests/support/fault.h"

std::atomic<void (*)(unsigned)> onSleep{nullptr};

extern "C" {
unsigned __real_sleep(unsigned seconds);
unsigned __wrap_sleep(unsigned seconds);

unsigned __wrap_sleep(unsigned seconds) {
  void (*const hook)(unsigned) = onSleep.load();
  if (hook == nullptr) return __real_sleep(seconds);
  hook(seconds);
  return 0;
}
}
