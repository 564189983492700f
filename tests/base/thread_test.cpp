#include "base/thread.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>

#include "tests/support/fault.h"

namespace {

void* Increment(void* argument) {
  ++*static_cast<int*>(argument);
  return nullptr;
}

TEST(JoinableThread, RunsItsBodyWithTheArgument) {
  int count = 0;
  JoinableThread thread;
  EXPECT_EQ(StartThread(thread, Increment, &count), 0);
  EXPECT_TRUE(thread.running);
  JoinThread(thread);
  EXPECT_FALSE(thread.running);
  EXPECT_EQ(count, 1);
}

bool IsBlocked(int signalNumber) {
  sigset_t blocked;
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  return sigismember(&blocked, signalNumber) == 1;
}

TEST(JoinableThread, HasTheStopSignalsBlockedAndNoOther) {
  bool blocked[3] = {};
  JoinableThread thread;
  const auto look = [](void* argument) -> void* {
    bool* const seen = static_cast<bool*>(argument);
    seen[0] = IsBlocked(SIGINT);
    seen[1] = IsBlocked(SIGTERM);
    seen[2] = IsBlocked(SIGUSR1) || IsBlocked(SIGHUP);
    return nullptr;
  };
  ASSERT_EQ(StartThread(thread, look, blocked), 0);
  JoinThread(thread);
  EXPECT_TRUE(blocked[0]);
  EXPECT_TRUE(blocked[1]);
  EXPECT_FALSE(blocked[2]);
}

TEST(JoinableThread, LeavesTheStartersSignalsAsTheyWere) {
  int count = 0;
  JoinableThread thread;
  StartThread(thread, Increment, &count);
  JoinThread(thread);
  EXPECT_FALSE(IsBlocked(SIGINT));
  EXPECT_FALSE(IsBlocked(SIGTERM));
  threadFault.FailCall(1);
  StartThread(thread, Increment, &count);
  EXPECT_FALSE(IsBlocked(SIGTERM));
}

TEST(JoinableThread, IsNoneWhenItCouldNotBeCreated) {
  int count = 0;
  JoinableThread thread;
  thread.running = true;
  threadFault.FailCall(1);
  EXPECT_EQ(StartThread(thread, Increment, &count), EAGAIN);
  EXPECT_FALSE(thread.running);
  JoinThread(thread);
  EXPECT_EQ(count, 0);
}

TEST(JoinableThread, JoiningTwiceIsHarmless) {
  int count = 0;
  JoinableThread thread;
  StartThread(thread, Increment, &count);
  JoinThread(thread);
  JoinThread(thread);
  EXPECT_EQ(count, 1);
}

}  // namespace
