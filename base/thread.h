// Threads that are joined.
#pragma once

#include <pthread.h>

/// A thread that its starter joins, or the mark that there is none.
struct JoinableThread {
  pthread_t handle;  ///< valid only while `running`
  bool running;      ///< false: no thread was started, or it has been joined
};

/// Starts `body` with `argument` on a thread of default attributes, which has the stop signals
/// blocked from its start, and so have the threads that it starts. Returns 0, or the error of
/// pthread_create(3); `thread` is then marked as none.
///
/// A body ends its thread by returning, which POSIX defines as an implicit pthread_exit(3) with the
/// returned value. It never makes the explicit call: some C libraries unwind the stack for that and
/// load the compiler's runtime library at that moment, which a router's flash does not hold.
int StartThread(JoinableThread& thread, void* (*body)(void*), void* argument);

/// Waits for the thread's end. Returns at once when there is none.
void JoinThread(JoinableThread& thread);
