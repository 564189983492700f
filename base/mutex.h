// A lock.
#pragma once

#include <pthread.h>

#include "base/annotations.h"

/// The pthread mutex in a form whose use clang can check. Static storage only.
class CAPABILITY("mutex") Mutex {
 public:
  constexpr Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;
  /// Waits for the lock and takes it.
  void Lock() ACQUIRE() { pthread_mutex_lock(&mutex); }
  /// Gives the lock back. Called by the thread that holds it.
  void Unlock() RELEASE() { pthread_mutex_unlock(&mutex); }
  /// Ends the mutex. Nobody holds it or takes it from here on.
  void Destroy() { pthread_mutex_destroy(&mutex); }

 private:
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};
