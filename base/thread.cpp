// Threads that are joined.
#include "base/thread.h"

int StartThread(JoinableThread& thread, void* (*body)(void*), void* argument) {
  const int error = pthread_create(&thread.handle, nullptr, body, argument);
  thread.running = error == 0;
  return error;
}

void JoinThread(JoinableThread& thread) {
  if (!thread.running) return;
  pthread_join(thread.handle, nullptr);
  thread.running = false;
}
