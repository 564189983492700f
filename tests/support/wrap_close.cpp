#include <unistd.h>

#include "tests/support/fault.h"

std::atomic<void (*)(int)> onClose{nullptr};

extern "C" {
int __real_close(int descriptor);
int __wrap_close(int descriptor);

int __wrap_close(int descriptor) {
  void (*const hook)(int) = onClose.load();
  const int result = __real_close(descriptor);
  if (hook != nullptr) hook(descriptor);
  return result;
}
}
