// Takes the place of the module that starts and joins threads: nothing runs, everything is noted.
#pragma once

#include <functional>
#include <string>
#include <vector>

using ThreadBody = void* (*)(void*);

struct FakeThread {
  ThreadBody failsFor = nullptr;  ///< this body's thread can't be created, for EAGAIN
  /// Called when a thread is started, failures included.
  std::function<void(ThreadBody body, void* argument)> onStart;
  std::vector<ThreadBody> started;  ///< in order, without failures
  std::vector<ThreadBody> joined;   ///< in order; null for a join of no thread
};

extern FakeThread fakeThread;
