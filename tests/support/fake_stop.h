// Takes the place of sigsuspend(2): the wait for a stop takes no time.
#pragma once

#include <csignal>
#include <functional>

struct FakeStop {
  /// Called for every wait with the signals that are blocked meanwhile; without it the stop flag is
  /// set, as if a signal had come.
  std::function<void(const sigset_t& blocked)> onWait;
};

extern FakeStop fakeStop;
