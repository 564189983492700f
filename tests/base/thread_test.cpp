#include "base/thread.h"

#include <gtest/gtest.h>

#include <cerrno>

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
