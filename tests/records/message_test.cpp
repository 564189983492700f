#include "records/message.h"

#include <gtest/gtest.h>

#include "tests/support/bytes.h"

namespace {

TEST(MessageReader, SeesItsBytesAndZerosAfterThem) {
  ExactBytes bytes(Wire("12 34 56"));
  const MessageReader reader(bytes.Data(), bytes.Size());
  EXPECT_EQ(reader.Length(), 3u);
  EXPECT_EQ(reader.Byte(0), 0x12);
  EXPECT_EQ(reader.Byte(2), 0x56);
  EXPECT_EQ(reader.Byte(3), 0);
  EXPECT_EQ(reader.Byte(SIZE_MAX), 0);
}

TEST(MessageReader, WordsAreBigEndianAndZeroOutside) {
  ExactBytes bytes(Wire("12 34 56"));
  const MessageReader reader(bytes.Data(), bytes.Size());
  EXPECT_EQ(reader.Word(0), 0x1234);
  EXPECT_EQ(reader.Word(1), 0x3456);
  EXPECT_EQ(reader.Word(2), 0x5600);
  EXPECT_EQ(reader.Word(3), 0);
}

TEST(MessageReader, HasCountsWithoutOverflow) {
  ExactBytes bytes(3);
  const MessageReader reader(bytes.Data(), bytes.Size());
  EXPECT_TRUE(reader.Has(0, 3));
  EXPECT_FALSE(reader.Has(0, 4));
  EXPECT_TRUE(reader.Has(3, 0));
  EXPECT_FALSE(reader.Has(3, 1));
  EXPECT_FALSE(reader.Has(4, 0));
  EXPECT_FALSE(reader.Has(1, SIZE_MAX));
  EXPECT_FALSE(reader.Has(SIZE_MAX, 1));
}

TEST(MessageReader, TextsAreCutAtTheEnd) {
  ExactBytes bytes(Wire("'abc'"));
  const MessageReader reader(bytes.Data(), bytes.Size());
  EXPECT_EQ(reader.Text(0, 2), "ab");
  EXPECT_EQ(reader.Text(1, 2), "bc");
  EXPECT_EQ(reader.Text(1, 3), "bc");
  EXPECT_EQ(reader.Text(2, SIZE_MAX), "c");
  EXPECT_EQ(reader.Text(3, 1), "");
  EXPECT_EQ(reader.Text(SIZE_MAX, 1), "");
}

TEST(Message, OneReceiveAsksForAsManyBytes) { EXPECT_EQ(kReceiveSize, 1518u); }

}  // namespace
