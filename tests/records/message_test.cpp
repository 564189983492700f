#include "records/message.h"

#include <gtest/gtest.h>

#include "tests/support/bytes.h"

namespace {

class MessageReaderTest : public testing::Test {
 protected:
  ExactBytes bytes{Wire("'abc'")};
  const MessageReader reader{bytes.Data(), 3};
};

TEST_F(MessageReaderTest, SeesItsBytesAndZerosAfterThem) {
  EXPECT_EQ(reader.Length(), 3u);
  EXPECT_EQ(reader.Byte(0), 'a');
  EXPECT_EQ(reader.Byte(2), 'c');
  EXPECT_EQ(reader.Byte(3), 0);
  EXPECT_EQ(reader.Byte(SIZE_MAX), 0);
}

TEST_F(MessageReaderTest, WordsAreBigEndianAndZeroOutside) {
  EXPECT_EQ(reader.Word(1), 0x6263);
  EXPECT_EQ(reader.Word(2), 0x6300);
  EXPECT_EQ(reader.Word(3), 0);
}

TEST_F(MessageReaderTest, HasCountsWithoutOverflow) {
  EXPECT_TRUE(reader.Has(0, 3));
  EXPECT_FALSE(reader.Has(0, 4));
  EXPECT_TRUE(reader.Has(3, 0));
  EXPECT_FALSE(reader.Has(4, 0));
  EXPECT_FALSE(reader.Has(1, SIZE_MAX));
  EXPECT_FALSE(reader.Has(SIZE_MAX, 1));
}

TEST_F(MessageReaderTest, TextsAreCutAtTheEnd) {
  EXPECT_EQ(reader.Text(0, 2), "ab");
  EXPECT_EQ(reader.Text(1, 2), "bc");
  EXPECT_EQ(reader.Text(2, SIZE_MAX), "c");
  EXPECT_EQ(reader.Text(3, 1), "");
  EXPECT_EQ(reader.Text(SIZE_MAX, 1), "");
}

}  // namespace
