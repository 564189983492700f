// The signals that ask the process to stop.
#pragma once

#include <csignal>

/// SIGINT and SIGTERM. The initial thread takes them and no other does: they would cut a pause or a
/// system call short.
inline sigset_t StopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}
