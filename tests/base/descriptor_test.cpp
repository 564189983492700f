#include "base/descriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>

namespace {

bool IsValid(int descriptor) { return fcntl(descriptor, F_GETFD) != -1; }

TEST(Descriptor, IsOpenWhileItHoldsOne) {
  const int number = dup(0);
  const Descriptor held(number);
  EXPECT_TRUE(held.IsOpen());
  EXPECT_EQ(held.Get(), number);
  EXPECT_TRUE(IsValid(number));
}

TEST(Descriptor, MayBeTheFirst) {
  const int input = dup(0);
  {
    const Descriptor held(0);
    EXPECT_TRUE(held.IsOpen());
  }
  EXPECT_FALSE(IsValid(0));
  dup2(input, 0);
  close(input);
}

TEST(Descriptor, IsClosedWhenItGoes) {
  const int number = dup(0);
  { const Descriptor held(number); }
  EXPECT_FALSE(IsValid(number));
}

TEST(Descriptor, NoneIsNotOpen) {
  const Descriptor none(-1);
  EXPECT_FALSE(none.IsOpen());
  EXPECT_EQ(none.Get(), -1);
}

TEST(Descriptor, ClosedOneHoldsNoneAndClosesNothingWhenItGoes) {
  const int number = dup(0);
  {
    Descriptor held(number);
    held.Close();
    EXPECT_FALSE(IsValid(number));
    EXPECT_FALSE(held.IsOpen());
    EXPECT_EQ(held.Get(), -1);
    EXPECT_EQ(dup(0), number);
  }
  EXPECT_TRUE(IsValid(number));
  close(number);
}

}  // namespace
