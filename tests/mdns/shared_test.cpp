#include "mdns/shared.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace {

std::string TextOf(const SharedText& text) {
  char buffer[SharedText::kMaxLength];
  return std::string(buffer, text.Copy(buffer, sizeof(buffer)));
}

TEST(SharedText, IsEmptyAtFirst) {
  const SharedText text;
  EXPECT_EQ(TextOf(text), "");
}

TEST(SharedText, CutsAtSixtyFourCharacters) {
  SharedText text;
  text.Set(std::string(64, 'a') + "b");
  EXPECT_EQ(TextOf(text), std::string(64, 'a'));
}

TEST(SharedText, ShorterTextLeavesNothingOfTheLongerOne) {
  SharedText text;
  text.Set("T5140_00-11-22-AA-BB-CC");
  text.Set("T51");
  EXPECT_EQ(TextOf(text), "T51");
}

TEST(SharedText, CopiesNoMoreThanAskedForAndNoTerminator) {
  SharedText text;
  text.Set("router");
  char buffer[8] = {'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x'};
  EXPECT_EQ(text.Copy(buffer, 3), 3u);
  EXPECT_EQ(std::string(buffer, 8), "rouxxxxx");
}

TEST(SharedText, ReaderSeesOneTextOrTheOtherAndNeverAMixture) {
  SharedText text;
  const std::string first(64, 'a');
  const std::string second(64, 'b');
  text.Set(first);
  std::thread writer([&] {
    for (int i = 0; i < 20000; ++i) text.Set(i % 2 == 0 ? second : first);
  });
  for (int i = 0; i < 20000; ++i) {
    const std::string seen = TextOf(text);
    ASSERT_TRUE(seen == first || seen == second) << seen;
  }
  writer.join();
}

}  // namespace
