#include "tests/support/fake_sleep.h"

#include <unistd.h>

FakeSleep fakeSleep;

extern "C" unsigned sleep(unsigned seconds) {
  if (fakeSleep.hook) fakeSleep.hook(seconds);
  return 0;
}
