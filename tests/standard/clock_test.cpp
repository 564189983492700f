#include "standard/clock.h"

#include <gtest/gtest.h>

namespace {

TEST(Clock, NeverIsNoTimeAgo) { EXPECT_EQ(AgeOf(0, 5000), kNever); }

TEST(Clock, PastTimesTellTheirAgeFor49Days) {
  constexpr int64_t kPeriod = int64_t{1} << 32;
  for (const int64_t past : {int64_t{1}, int64_t{5000}, kPeriod - 1, kPeriod + 1, 9 * kPeriod}) {
    for (const int64_t age : {int64_t{1}, int64_t{250}, int64_t{1000}, kPeriod - 2}) {
      // The time that would be never is one millisecond earlier.
      const int64_t error = past % kPeriod == 0 ? 1 : 0;
      EXPECT_EQ(AgeOf(ToPast(past), past + age), age + error) << past;
    }
  }
  EXPECT_EQ(AgeOf(ToPast(5000), 5000), 0);
  EXPECT_EQ(AgeOf(ToPast(kPeriod), kPeriod), 1);
}

}  // namespace
