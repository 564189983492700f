#include "base/descriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>

namespace {

bool IsValid(int descriptor) { return fcntl(descriptor, F_GETFD) != -1; }

TEST(Descriptor, IsOpenUntilItGoesAlsoTheFirst) {
  const int input = dup(0);
  {
    const Descriptor held(0);
    EXPECT_TRUE(held.IsOpen());
    EXPECT_EQ(held.Get(), 0);
    EXPECT_TRUE(IsValid(0));
  }
  EXPECT_FALSE(IsValid(0));
  dup2(input, 0);
  close(input);
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
