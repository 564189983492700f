// The end of the process.
#include "standard/process.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace {

TEST(ProcessTest, EndsWithStatusZeroWhateverOtherThreadsDo) {
  EXPECT_EXIT(
      {
        std::thread([] { std::this_thread::sleep_for(std::chrono::hours(1)); }).detach();
        EndProcess();
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
