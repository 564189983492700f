#include <pthread.h>

#include "tests/support/fault.h"

std::atomic<void (*)()> onNextBroadcast{nullptr};

extern "C" {
int __real_pthread_cond_broadcast(pthread_cond_t* condition);
int __wrap_pthread_cond_broadcast(pthread_cond_t* condition);

int __wrap_pthread_cond_broadcast(pthread_cond_t* condition) {
  void (*const hook)() = onNextBroadcast.exchange(nullptr);
  if (hook != nullptr) hook();
  return __real_pthread_cond_broadcast(condition);
}
}
