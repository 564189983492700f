#include "base/thread.h"

#include <gtest/gtest.h>

#include <csignal>

namespace {

// Which of SIGINT, SIGTERM and two other signals are blocked.
std::string BlockedSignals() {
  sigset_t blocked;
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  std::string text;
  for (const int number : {SIGINT, SIGTERM, SIGUSR1, SIGHUP}) {
    text += sigismember(&blocked, number) == 1 ? 'x' : '-';
  }
  return text;
}

void* TakeBlockedSignals(void* argument) {
  *static_cast<std::string*>(argument) = BlockedSignals();
  return nullptr;
}

TEST(JoinableThread, RunsItsBodyWithTheArgumentAndWithTheStopSignalsBlockedThereAlone) {
  std::string blocked;
  JoinableThread thread;
  EXPECT_EQ(StartThread(thread, TakeBlockedSignals, &blocked), 0);
  EXPECT_TRUE(thread.running);
  EXPECT_EQ(BlockedSignals(), "----");
  JoinThread(thread);
  EXPECT_FALSE(thread.running);
  EXPECT_EQ(blocked, "xx--");
  // There is none to join any more.
  JoinThread(thread);
}

}  // namespace
