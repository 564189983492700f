#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "tests/support/fault.h"

Fault threadFault;
std::atomic<void (*)()> onCreateThread{nullptr};

namespace {

std::mutex mutex;
std::condition_variable ended;
std::vector<ThreadAttributes> started;
size_t endedCount = 0;

struct Body {
  void* (*run)(void*);
  void* argument;
};

void* RunAndCount(void* argument) {
  const std::unique_ptr<Body> body(static_cast<Body*>(argument));
  void* result = body->run(body->argument);
  const std::lock_guard lock(mutex);
  ++endedCount;
  ended.notify_all();
  return result;
}

}  // namespace

std::vector<ThreadAttributes> StartedThreads() {
  const std::lock_guard lock(mutex);
  return started;
}

void ForgetThreads() {
  const std::lock_guard lock(mutex);
  started.clear();
  endedCount = 0;
}

bool WaitForEndedThreads(size_t count) {
  std::unique_lock lock(mutex);
  return ended.wait_for(lock, std::chrono::seconds(10), [&] { return endedCount >= count; });
}

extern "C" {
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument);

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument) {
  if (void (*const hook)() = onCreateThread.load(); hook != nullptr) hook();
  if (threadFault.Strikes()) return EAGAIN;
  ThreadAttributes seen = {PTHREAD_CREATE_JOINABLE, 0};
  if (attributes != nullptr) {
    pthread_attr_getdetachstate(attributes, &seen.detachState);
    pthread_attr_getstacksize(attributes, &seen.stackSize);
  }
  auto counted = std::make_unique<Body>(Body{body, argument});
  const int error = __real_pthread_create(thread, attributes, RunAndCount, counted.get());
  if (error != 0) return error;
  static_cast<void>(counted.release());  // the thread frees it
  const std::lock_guard lock(mutex);
  started.push_back(seen);
  return 0;
}
}
