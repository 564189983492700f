#include "tests/support/fault.h"

#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <memory>
#include <mutex>

Fault callocFault(ENOMEM);
Fault mmapFault(ENOMEM);
Fault threadFault(EAGAIN);
Fault socketFault(EMFILE);
Fault setsockoptFault(EPERM);
std::atomic<void*> nextMapping{nullptr};
std::atomic<int> mappedBlocks{0};
std::deque<ssize_t> writeResults;
std::atomic<void (*)()> onCreateThread{nullptr};
std::atomic<void (*)(int)> onClose{nullptr};
std::atomic<void (*)(const void*, size_t, const sockaddr*)> onSendTo{nullptr};
std::atomic<void (*)()> onNextLock{nullptr};
std::atomic<void (*)()> onNextBroadcast{nullptr};
std::atomic<void (*)(unsigned)> onUsleep{nullptr};
std::function<void(unsigned)> onSleep;
std::function<int(const std::string&, int)> onOpen;
std::function<ssize_t(int, char*, size_t)> onRead;
std::function<int(int, unsigned long, char*)> onIoctl;
std::atomic<time_t> monotonicSeconds{-1};

namespace {

std::mutex mutex;
std::condition_variable ended;
size_t endedCount = 0;
std::vector<ThreadAttributes> started;
std::vector<SocketOption> options;

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

bool Fault::Strikes() {
  if (left.load() <= 0 || left.fetch_sub(1) != 1) return false;
  struck = true;
  errno = error;
  return true;
}

std::vector<SocketOption> SetOptions() {
  const std::lock_guard lock(mutex);
  return options;
}

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

void* __real_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size) {
  return callocFault.Strikes() ? nullptr : __real_calloc(count, size);
}

int __real_clock_gettime(clockid_t clock, timespec* now);
int __wrap_clock_gettime(clockid_t clock, timespec* now) {
  const time_t seconds = monotonicSeconds.load();
  if (clock != CLOCK_MONOTONIC || seconds < 0) return __real_clock_gettime(clock, now);
  *now = {seconds, 0};
  return 0;
}

int __real_close(int descriptor);
int __wrap_close(int descriptor) {
  void (*const hook)(int) = onClose.load();
  const int result = __real_close(descriptor);
  if (hook != nullptr) hook(descriptor);
  return result;
}

int __real_ioctl(int descriptor, unsigned long request, ...);
int __wrap_ioctl(int descriptor, unsigned long request, ...) {
  va_list arguments;
  va_start(arguments, request);
  char* const argument = va_arg(arguments, char*);
  va_end(arguments);
  if (!onIoctl) return __real_ioctl(descriptor, request, argument);
  return onIoctl(descriptor, request, argument);
}

void* __real_mmap(void* address, size_t size, int protection, int flags, int file, off_t offset);
void* __wrap_mmap(void* address, size_t size, int protection, int flags, int file, off_t offset) {
  if (mmapFault.Strikes()) return MAP_FAILED;
  void* block = nextMapping.exchange(nullptr);
  if (block == nullptr) block = __real_mmap(address, size, protection, flags, file, offset);
  if (block != MAP_FAILED) ++mappedBlocks;
  return block;
}

int __real_munmap(void* address, size_t size);
int __wrap_munmap(void* address, size_t size) {
  --mappedBlocks;
  return __real_munmap(address, size);
}

// Nobody creates a file with it, so there is no mode.
int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...) {
  return onOpen ? onOpen(path, flags) : __real_open(path, flags);
}

int __real_pthread_cond_broadcast(pthread_cond_t* condition);
int __wrap_pthread_cond_broadcast(pthread_cond_t* condition) {
  if (void (*const hook)() = onNextBroadcast.exchange(nullptr)) hook();
  return __real_pthread_cond_broadcast(condition);
}

int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument) {
  if (void (*const hook)() = onCreateThread.load()) hook();
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

int __real_pthread_mutex_lock(pthread_mutex_t* lock);
int __wrap_pthread_mutex_lock(pthread_mutex_t* lock) {
  if (void (*const hook)() = onNextLock.exchange(nullptr)) hook();
  return __real_pthread_mutex_lock(lock);
}

ssize_t __real_read(int descriptor, void* bytes, size_t count);
ssize_t __wrap_read(int descriptor, void* bytes, size_t count) {
  if (!onRead) return __real_read(descriptor, bytes, count);
  return onRead(descriptor, static_cast<char*>(bytes), count);
}

ssize_t __real_sendto(int socket, const void* bytes, size_t length, int flags, const sockaddr* to,
                      socklen_t size);
ssize_t __wrap_sendto(int socket, const void* bytes, size_t length, int flags, const sockaddr* to,
                      socklen_t size) {
  void (*const hook)(const void*, size_t, const sockaddr*) = onSendTo.load();
  if (hook != nullptr) hook(bytes, length, to);
  return __real_sendto(socket, bytes, length, flags, to, size);
}

int __real_setsockopt(int socket, int level, int option, const void* value, socklen_t size);
int __wrap_setsockopt(int socket, int level, int option, const void* value, socklen_t size) {
  {
    const auto* bytes = static_cast<const uint8_t*>(value);
    const std::lock_guard lock(mutex);
    options.push_back({level, option, {bytes, bytes + size}});
  }
  if (setsockoptFault.Strikes()) return -1;
  return __real_setsockopt(socket, level, option, value, size);
}

unsigned __real_sleep(unsigned seconds);
unsigned __wrap_sleep(unsigned seconds) {
  if (!onSleep) return __real_sleep(seconds);
  onSleep(seconds);
  return 0;
}

int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol) {
  return socketFault.Strikes() ? -1 : __real_socket(domain, type, protocol);
}

int __real_usleep(useconds_t microseconds);
int __wrap_usleep(useconds_t microseconds) {
  void (*const hook)(unsigned) = onUsleep.load();
  if (hook == nullptr) return __real_usleep(microseconds);
  hook(microseconds);
  return 0;
}

ssize_t __real_write(int descriptor, const void* bytes, size_t count);
ssize_t __wrap_write(int descriptor, const void* bytes, size_t count) {
  if (writeResults.empty()) return __real_write(descriptor, bytes, count);
  const ssize_t result = writeResults.front();
  writeResults.pop_front();
  if (result >= 0) {
    return __real_write(descriptor, bytes, std::min(count, static_cast<size_t>(result)));
  }
  errno = ENOSPC;
  return -1;
}
}
