#include "base/shared.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <csignal>
#include <ctime>
#include <string>
#include <thread>

namespace {

std::string TextOf(const SharedText& text) {
  char buffer[SharedText::kMaxLength];
  return std::string(buffer, text.Copy(buffer, sizeof(buffer)));
}

TEST(SharedText, IsEmptyThenTheLastTextCutAtSixtyFourCharacters) {
  SharedText text;
  EXPECT_EQ(TextOf(text), "");
  text.Set(std::string(64, 'a') + "b");
  EXPECT_EQ(TextOf(text), std::string(64, 'a'));
  text.Set("T51");
  EXPECT_EQ(TextOf(text), "T51");
}

TEST(SharedText, CopiesNoMoreThanAskedForAndNoTerminator) {
  SharedText text;
  text.Set("router");
  char buffer[] = "xxxxxxx";
  EXPECT_EQ(text.Copy(buffer, 3), 3u);
  EXPECT_STREQ(buffer, "rouxxxx");
}

std::atomic<bool> isHeld{false};

// Holds the thread wherever it is, mostly in the middle of a Set, so that others see what it left.
void Hold(int) {
  isHeld = true;
  const timespec pause = {0, 1000000};
  nanosleep(&pause, nullptr);
}

TEST(SharedText, ReaderSeesOneTextOrTheOtherAndNeverAMixture) {
  SharedText text;
  const std::string first(64, 'a');
  const std::string second(64, 'b');
  text.Set(first);
  signal(SIGUSR1, Hold);
  std::atomic<bool> isReading{true};
  std::atomic<int> rounds{0};
  std::thread writer([&] {
    for (; isReading; ++rounds) {
      text.Set(second);
      text.Set(first);
    }
  });
  for (int i = 0; i < 100; ++i) {
    isHeld = false;
    pthread_kill(writer.native_handle(), SIGUSR1);
    while (!isHeld) sched_yield();
    const std::string seen = TextOf(text);
    EXPECT_TRUE(seen == first || seen == second) << seen;
    // The next hold is at another place.
    const int round = rounds;
    while (rounds == round) sched_yield();
  }
  isReading = false;
  writer.join();
}

}  // namespace
