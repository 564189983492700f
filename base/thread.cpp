// Threads that are joined.
#include "base/thread.h"

#include "base/stop_signals.h"

int StartThread(JoinableThread& thread, void* (*body)(void*), void* argument) {
  const sigset_t stop = StopSignals();
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &stop, &before);
  const int error = pthread_create(&thread.handle, nullptr, body, argument);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  thread.running = error == 0;
  return error;
}

void JoinThread(JoinableThread& thread) {
  if (!thread.running) return;
  pthread_join(thread.handle, nullptr);
  thread.running = false;
}
