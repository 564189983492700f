#include "tests/support/fake_stop.h"

#include <cerrno>

#include "base/responder.h"

FakeStop fakeStop;

extern "C" int sigsuspend(const sigset_t* blocked) {
  if (fakeStop.onWait) {
    fakeStop.onWait(*blocked);
  } else {
    bTerminate.Set(1);
  }
  errno = EINTR;
  return -1;
}
