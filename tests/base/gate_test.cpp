#include "base/gate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

namespace {

TEST(Gate, CountsWhoIsInsideAndLetsNobodyInOnceItIsClosed) {
  Gate gate;
  EXPECT_TRUE(gate.IsEmpty());
  EXPECT_TRUE(gate.Enter());
  EXPECT_TRUE(gate.Enter());
  gate.Leave();
  EXPECT_FALSE(gate.IsEmpty());
  EXPECT_FALSE(gate.IsClosed());
  gate.Close();
  EXPECT_TRUE(gate.IsClosed());
  EXPECT_FALSE(gate.Enter());
  EXPECT_FALSE(gate.IsEmpty());
  gate.Leave();
  EXPECT_TRUE(gate.IsEmpty());
}

TEST(GatePass, IsInsideForItsLifetimeUnlessTheGateIsClosed) {
  Gate gate;
  {
    const GatePass pass(gate);
    EXPECT_TRUE(pass.IsInside());
    EXPECT_FALSE(gate.IsEmpty());
  }
  EXPECT_TRUE(gate.IsEmpty());
  gate.Close();
  EXPECT_FALSE(GatePass(gate).IsInside());
  EXPECT_TRUE(gate.IsEmpty());
}

// A word of which one operation is followed by what somebody else does in that moment.
class HeldWord {
 public:
  constexpr explicit HeldWord(uint32_t initial) : word(initial) {}
  uint32_t fetch_add(uint32_t value) { return Held(word.fetch_add(value)); }
  uint32_t fetch_sub(uint32_t value) { return Held(word.fetch_sub(value)); }
  uint32_t fetch_or(uint32_t value) { return Held(word.fetch_or(value)); }
  uint32_t load() const { return Held(word.load()); }

  // The operations until then, and what is done.
  static inline int left = 0;
  static inline std::function<void()> meanwhile;

 private:
  static uint32_t Held(uint32_t result) {
    if (--left == 0) meanwhile();
    return result;
  }

  std::atomic<uint32_t> word;
};

TEST(Gate, CloseBetweenAnyTwoStepsOfAnEntryKeepsItOutOrFindsItInside) {
  int steps = 0;
  for (bool isOver = false; !isOver; ++steps) {
    BasicGate<HeldWord> gate;
    bool isClosedAndEmpty = false;
    isOver = true;
    HeldWord::meanwhile = [&] {
      isOver = false;
      gate.Close();
      isClosedAndEmpty = gate.IsEmpty();
    };
    HeldWord::left = steps + 1;
    EXPECT_FALSE(gate.Enter() && isClosedAndEmpty) << "after step " << steps + 1;
  }
  EXPECT_GT(steps, 1);
}

TEST(Gate, NobodyIsInsideOnceItIsClosedAndEmpty) {
  Gate gate;
  std::atomic<bool> isOver{false};
  std::atomic<int> seenInside{0};
  int work = 0;  // changed inside only, by one thread
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      while (gate.Enter()) {
        if (isOver) ++seenInside;
        if (i == 0) ++work;
        gate.Leave();
      }
    });
  }
  while (gate.IsEmpty()) std::this_thread::yield();
  gate.Close();
  while (!gate.IsEmpty()) std::this_thread::yield();
  isOver = true;
  // The thread sanitizer sees a race here if leaving did not order the work before the look.
  EXPECT_GE(work, 0);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(seenInside, 0);
}

}  // namespace
