#include "standard/random.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

std::vector<int64_t> Numbers(uint64_t seed, int64_t low, int64_t high) {
  auto core = std::make_unique<Core>();
  SeedRandom(*core, seed);
  std::vector<int64_t> numbers(10000);
  for (int64_t& number : numbers) number = RandomBetween(*core, low, high);
  return numbers;
}

TEST(Random, EachNumberOfARangeIsAsLikelyAsTheNext) {
  std::vector<int> counts(11);
  for (const int64_t number : Numbers(0, 20, 30)) {
    ASSERT_GE(number, 20);
    ASSERT_LE(number, 30);
    ++counts[static_cast<size_t>(number - 20)];
  }
  for (const int count : counts) EXPECT_NEAR(count, 10000 / 11, 100);
}

TEST(Random, SeedsGiveSequencesOfTheirOwn) {
  EXPECT_EQ(Numbers(1, 0, 250), Numbers(1, 0, 250));
  EXPECT_NE(Numbers(1, 0, 250), Numbers(2, 0, 250));
  EXPECT_EQ(Numbers(3, 7, 7), std::vector<int64_t>(10000, 7));
}

}  // namespace
