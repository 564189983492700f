// Faults and recordings of libc calls that the linker leads through tests/support/wrap_<call>.cpp;
// a test names the calls it wants so under WRAPS. Until armed, each wrapped call is the real one.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <deque>
#include <vector>

/// A call that fails once when its turn comes.
class Fault {
 public:
  /// The `n`th call from here on fails; 1 is the next, 0 is none.
  void FailCall(int n) {
    struck = false;
    left = n;
  }
  /// True once the armed call has failed: a test whose fault was never reached has shown nothing.
  bool HasStruck() const { return struck; }
  /// For the wrapped call: whether this one is to fail.
  bool Strikes() {
    if (left.load() <= 0 || left.fetch_sub(1) != 1) return false;
    struck = true;
    return true;
  }

 private:
  std::atomic<int> left{0};
  std::atomic<bool> struck{false};
};

/// WRAPS calloc: the call returns null with ENOMEM.
extern Fault callocFault;
/// WRAPS mmap and munmap: mmap returns MAP_FAILED with ENOMEM.
extern Fault mmapFault;
/// WRAPS mmap and munmap: memory of the test that the next mmap returns; null means a new mapping.
extern std::atomic<void*> nextMapping;
/// WRAPS mmap and munmap: mappings made and not given back.
extern std::atomic<int> mappedBlocks;
/// WRAPS pthread_create: the call returns EAGAIN.
extern Fault threadFault;
/// WRAPS socket: the call returns -1 with EMFILE.
extern Fault socketFault;
/// WRAPS setsockopt: the call returns -1 with EPERM.
extern Fault setsockoptFault;

/// WRAPS setsockopt: an option as it was handed over.
struct SocketOption {
  int level;
  int option;
  std::vector<uint8_t> value;
};
/// The options of the whole process, in the order of the calls; set by one thread.
std::vector<SocketOption> SetOptions();

/// WRAPS write: how many bytes each of the next calls takes at most, -1 for a call that returns -1
/// with ENOSPC. One writing thread.
extern std::deque<ssize_t> writeResults;

/// WRAPS close: called with the descriptor, after the real call; null means nothing.
extern std::atomic<void (*)(int descriptor)> onClose;

/// WRAPS pthread_create: the threads that were started through it.
struct ThreadAttributes {
  int detachState;
  size_t stackSize;
};
/// Called on the creating thread before each creation, failing ones included; null means nothing.
extern std::atomic<void (*)()> onCreateThread;
/// The attributes of each, in the order of creation; taken while no thread is being created.
std::vector<ThreadAttributes> StartedThreads();
/// Starts counting at 0 again. No thread is running.
void ForgetThreads();
/// Waits until as many threads have ended. Returns false after ten seconds.
bool WaitForEndedThreads(size_t count);

/// WRAPS usleep, sleep: what the code under test does when it pauses. While a function is set it is
/// called with the microseconds or the seconds and there is no pause; null means the real call.
extern std::atomic<void (*)(unsigned microseconds)> onUsleep;
extern std::atomic<void (*)(unsigned seconds)> onSleep;

/// WRAPS pthread_mutex_lock: called once, before the next lock is waited for.
extern std::atomic<void (*)()> onNextLock;

/// WRAPS pthread_cond_broadcast: called once, before the next waiters are woken.
extern std::atomic<void (*)()> onNextBroadcast;

/// WRAPS clock_gettime: the seconds that CLOCK_MONOTONIC shows, below 0 for the real ones.
extern std::atomic<time_t> monotonicSeconds;
