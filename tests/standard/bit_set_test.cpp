#include "standard/bit_set.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Set = BitSet<70>;

Set SetOf(const std::vector<size_t>& numbers) {
  Set set = {};
  for (const size_t number : numbers) set.Add(number);
  return set;
}

std::vector<size_t> NumbersOf(const Set& set) {
  std::vector<size_t> numbers;
  for (size_t i = set.Next(0); i < 70; i = set.Next(i + 1)) numbers.push_back(i);
  return numbers;
}

TEST(BitSet, GoesThroughItsNumbersInOrder) {
  const std::vector<size_t> tables[] = {{}, {0}, {69}, {0, 31, 32, 33, 63, 64, 69}, {31}, {32}};
  for (const std::vector<size_t>& numbers : tables) {
    EXPECT_EQ(NumbersOf(SetOf(numbers)), numbers);
    EXPECT_EQ(SetOf(numbers).IsEmpty(), numbers.empty());
  }
  EXPECT_EQ(SetOf({31, 32}).Next(32), 32u);
}

TEST(BitSet, AddsAndRemoves) {
  Set set = SetOf({1, 40, 69});
  EXPECT_TRUE(set.Has(40));
  EXPECT_FALSE(set.Has(41));
  set.Remove(40);
  EXPECT_EQ(NumbersOf(set), (std::vector<size_t>{1, 69}));
  set.AddAll(SetOf({2, 69}));
  EXPECT_EQ(NumbersOf(set), (std::vector<size_t>{1, 2, 69}));
  set.RemoveAll(SetOf({1, 69, 33}));
  EXPECT_EQ(NumbersOf(set), std::vector<size_t>{2});
}

}  // namespace
