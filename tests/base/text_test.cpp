#include "base/text.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/support/fault.h"

namespace {

TEST(FormatNumber, WritesTheNumberInDecimal) {
  EXPECT_STREQ(FormatNumber(0).text, "0");
  EXPECT_STREQ(FormatNumber(1518).text, "1518");
  EXPECT_STREQ(FormatNumber(-1).text, "-1");
  EXPECT_STREQ(FormatNumber(INT32_MIN).text, "-2147483648");
}

TEST(FormatAddress, WritesFourNumbersAndNothingForNoAddress) {
  EXPECT_STREQ(FormatAddress(inet_addr("192.168.1.1")).text, "192.168.1.1");
  EXPECT_STREQ(FormatAddress(inet_addr("255.255.255.254")).text, "255.255.255.254");
  EXPECT_STREQ(FormatAddress(0).text, "0.0.0.0");
  EXPECT_STREQ(FormatAddress(INADDR_NONE).text, "");
}

TEST(CopyText, CutsAtTheLimitAndZerosTheRest) {
  char field[8];
  memset(field, 'x', sizeof(field));
  CopyText(field, sizeof(field), 3, "abcdef");
  EXPECT_EQ(std::string(field, 8), std::string("abc\0\0\0\0\0", 8));
}

TEST(CopyText, WholeFieldKeepsItsTerminator) {
  char field[4];
  CopyText(field, "abcdef");
  EXPECT_STREQ(field, "abc");
  CopyText(field, "");
  EXPECT_EQ(std::string(field, 4), std::string(4, '\0'));
  CopyText(field, std::string_view());
  EXPECT_STREQ(field, "");
}

TEST(FieldText, EndsAtTheZeroOrAtTheField) {
  const char zero[4] = {'a', 0, 'b', 'c'};
  const char full[3] = {'a', 'b', 'c'};
  EXPECT_EQ(FieldText(zero), "a");
  EXPECT_EQ(FieldText(full), "abc");
}

TEST(NewText, IsEmptyWithRoomForItsLength) {
  const HeapText text = NewText(3);
  for (int i = 0; i <= 3; ++i) EXPECT_EQ(text.get()[i], 0);
  memcpy(text.get(), "abc", 3);
  EXPECT_STREQ(text.get(), "abc");
}

TEST(JoinTexts, PutsThePartsOneAfterAnother) {
  EXPECT_STREQ(JoinTexts({"Office", ".", "_ipp._tcp", ".local"}).get(), "Office._ipp._tcp.local");
  EXPECT_STREQ(JoinTexts({}).get(), "");
  EXPECT_STREQ(JoinTexts({"", "a", std::string_view()}).get(), "a");
}

TEST(HeapTexts, AreNullWithoutMemory) {
  callocFault.FailCall(1);
  EXPECT_EQ(NewText(3), nullptr);
  callocFault.FailCall(1);
  EXPECT_EQ(JoinTexts({"a"}), nullptr);
  EXPECT_TRUE(callocFault.HasStruck());
}

}  // namespace
