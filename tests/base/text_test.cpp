#include "base/text.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>

namespace {

TEST(FormatNumber, WritesTheNumberInDecimal) {
  EXPECT_STREQ(FormatNumber(0).text, "0");
  EXPECT_STREQ(FormatNumber(INT32_MIN).text, "-2147483648");
}

TEST(FormatAddress, WritesFourNumbersAndNothingForNoAddress) {
  EXPECT_STREQ(FormatAddress(inet_addr("192.168.1.1")).text, "192.168.1.1");
  EXPECT_STREQ(FormatAddress(inet_addr("255.255.255.254")).text, "255.255.255.254");
  EXPECT_STREQ(FormatAddress(0).text, "0.0.0.0");
  EXPECT_STREQ(FormatAddress(INADDR_NONE).text, "");
}

TEST(CopyText, CutsAtTheLimitAndZerosTheRest) {
  char field[] = "xxxxxxx";
  CopyText(field, sizeof(field), 3, "abcdef");
  EXPECT_EQ(std::string(field, 8), std::string("abc\0\0\0\0\0", 8));
}

TEST(CopyText, WholeFieldKeepsItsTerminatorAndATextMayHaveNoData) {
  char field[4];
  CopyText(field, "abcdef");
  EXPECT_STREQ(field, "abc");
  CopyText(field, std::string_view());
  EXPECT_EQ(std::string(field, 4), std::string(4, '\0'));
}

TEST(FieldText, EndsAtTheZeroOrAtTheField) {
  EXPECT_EQ(FieldText({'a', '\0', 'b'}), "a");
  EXPECT_EQ(FieldText({'a', 'b', 'c'}), "abc");
}

TEST(NewText, IsEmptyWithRoomForItsLength) {
  const HeapText text = NewText(3);
  EXPECT_EQ(std::string(text.get(), 4), std::string(4, '\0'));
  memcpy(text.get(), "abc", 3);
}

TEST(JoinTexts, PutsThePartsOneAfterAnother) {
  EXPECT_STREQ(JoinTexts({"Office", ".", "", std::string_view(), "_ipp"}).get(), "Office._ipp");
  EXPECT_STREQ(JoinTexts({}).get(), "");
}

}  // namespace
