#include "tests/support/fake_thread.h"

#include <cerrno>

#include "base/thread.h"

FakeThread fakeThread;

int StartThread(JoinableThread& thread, void* (*body)(void*), void* argument) {
  if (fakeThread.onStart) fakeThread.onStart(body, argument);
  thread.running = body != fakeThread.failsFor;
  if (!thread.running) return EAGAIN;
  fakeThread.started.push_back(body);
  // The handle says which of the started threads it is.
  thread.handle = fakeThread.started.size() - 1;
  return 0;
}

void JoinThread(JoinableThread& thread) {
  fakeThread.joined.push_back(thread.running ? fakeThread.started[thread.handle] : nullptr);
  thread.running = false;
}
