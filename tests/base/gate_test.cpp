#include "base/gate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>

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

}  // namespace
