#include <pthread.h>

#include "tests/support/fault.h"

std::atomic<void (*)()> onNextLock{nullptr};

extern "C" {
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex);

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  void (*const hook)() = onNextLock.exchange(nullptr);
  if (hook != nullptr) hook();
  return __real_pthread_mutex_lock(mutex);
}
}
