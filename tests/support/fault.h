// Faults and recordings of libc calls: the linker leads those of every test through fault.cpp.
// Until something here is armed or set, each of them is the real one.
#pragma once

#include <pthread.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <deque>
#include <functional>
#include <string>
#include <vector>

/// A call that fails once when its turn comes.
class Fault {
 public:
  constexpr explicit Fault(int errorNumber) : error(errorNumber) {}
  /// The `n`th call from here on fails; 1 is the next, 0 is none.
  void FailCall(int n) {
    struck = false;
    left = n;
  }
  /// True once the armed call has failed: a test whose fault was never reached has shown nothing.
  bool HasStruck() const { return struck; }
  /// For the wrapped call: whether this one is to fail, with errno set.
  bool Strikes();

 private:
  const int error;
  std::atomic<int> left{0};
  std::atomic<bool> struck{false};
};

extern Fault callocFault;      ///< ENOMEM
extern Fault mmapFault;        ///< ENOMEM
extern Fault threadFault;      ///< pthread_create, EAGAIN
extern Fault socketFault;      ///< EMFILE
extern Fault setsockoptFault;  ///< EPERM

/// Memory of the test that the next mmap returns; null means a new mapping.
extern std::atomic<void*> nextMapping;
/// Mappings made and not given back.
extern std::atomic<int> mappedBlocks;

/// An option as it was handed to setsockopt.
struct SocketOption {
  int level;
  int option;
  std::vector<uint8_t> value;
};
/// The options of the whole process, in the order of the calls.
std::vector<SocketOption> SetOptions();

/// How many bytes each of the next calls of write takes at most, -1 for a call that returns -1 with
/// ENOSPC. One writing thread.
extern std::deque<ssize_t> writeResults;

struct ThreadAttributes {
  int detachState;
  size_t stackSize;
};
/// The attributes of each started thread, in the order of creation.
std::vector<ThreadAttributes> StartedThreads();
/// Starts counting at 0 again. No thread is running.
void ForgetThreads();
/// Waits until as many threads have ended. Returns false after ten seconds.
bool WaitForEndedThreads(size_t count);

// What a test sets to follow a call; null means nothing.
/// On the creating thread before each creation, failing ones included.
extern std::atomic<void (*)()> onCreateThread;
/// After the real call.
extern std::atomic<void (*)(int descriptor)> onClose;
/// Before each datagram leaves.
extern std::atomic<void (*)(const void* bytes, size_t length, const sockaddr* to)> onSendTo;
/// Once, before the next lock is waited for.
extern std::atomic<void (*)()> onNextLock;
/// Once, before the next waiters of a condition are woken.
extern std::atomic<void (*)()> onNextBroadcast;
/// In place of the pause.
extern std::atomic<void (*)(unsigned microseconds)> onUsleep;
// These are set while no other thread runs, and followed in place of the call.
extern std::function<void(unsigned seconds)> onSleep;
extern std::function<int(const std::string& path, int flags)> onOpen;
extern std::function<ssize_t(int descriptor, char* bytes, size_t count)> onRead;
extern std::function<int(int descriptor, unsigned long request, char* argument)> onIoctl;
/// The seconds that CLOCK_MONOTONIC shows, below 0 for the real ones.
extern std::atomic<time_t> monotonicSeconds;
