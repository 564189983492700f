#include "standard/label.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/bytes.h"

namespace {

using std::string;

TEST(Label, IsUtf8WithoutControlsAndCutBetweenCharacters) {
  struct Row {
    const char* what;
    string text;
    const char* suffix;
    string expected;
  };
  const Row rows[] = {
      {"as it is", "HP 1.0 (a/b)", "", "HP 1.0 (a/b)"},
      {"with a suffix", "HP", " (2)", "HP (2)"},
      {"controls",
       "a\tb\x7F"
       "c\x1F",
       "", "a b c "},
      {"63 bytes", string(63, 'a'), "", string(63, 'a')},
      {"64 bytes", string(64, 'a'), "", string(63, 'a')},
      {"room for a suffix", string(64, 'a'), " (10)", string(58, 'a') + " (10)"},
      {"two bytes at the end", string(61, 'a') + "\u00E4x", "", string(61, 'a') + "\u00E4"},
      {"two bytes over the end", string(62, 'a') + "\u00E4x", "", string(62, 'a')},
      {"four bytes over the end", string(60, 'a') + "\U0001F5A8", "", string(60, 'a')},
      {"three bytes", "\u5370\u5237", "", "\u5370\u5237"},
      {"Latin-1", "B\xFCro", "", "B?ro"},
      {"a continuation alone", "a\x80", "", "a?"},
      {"cut off", "a\xE5\x8D", "", "a??"},
      {"overlong", "\xC0\xAF", "", "??"},
      {"overlong of three", "\xE0\x9F\xBF", "", "???"},
      {"surrogate", "\xED\xA0\x80", "", "???"},
      {"overlong of four", "\xF0\x8F\xBF\xBF", "", "????"},
      {"above the last", "\xF4\x90\x80\x80", "", "????"},
      {"five bytes", "\xF8\x88\x80\x80\x80", "", "?????"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(string(MakeLabel(row.text, row.suffix).text), row.expected);
  }
}

TEST(Label, SuffixesAreTheHostsAndTheServices) {
  EXPECT_STREQ(HostSuffix(0).text, "");
  EXPECT_STREQ(HostSuffix(1).text, "-1");
  EXPECT_STREQ(HostSuffix(10).text, "-10");
  EXPECT_STREQ(InstanceSuffix(0).text, "");
  EXPECT_STREQ(InstanceSuffix(2).text, " (2)");
  EXPECT_STREQ(InstanceSuffix(UINT32_MAX).text, " (4294967295)");
}

TEST(Txt, IsAStringForEachLine) {
  struct Row {
    const char* what;
    string text;
    string expected;
  };
  const Row rows[] = {
      {"none", "", "00"},
      {"blank lines alone", "\n\n", "00"},
      {"two", "a=1\nbc", "03 'a=1' 02 'bc'"},
      {"blank lines between", "\na\n\nb\n", "01 'a' 01 'b'"},
      {"255 bytes", string(255, 'a'), "FF 255*'a'"},
      {"256 bytes", string(256, 'a') + "\nb", "FF 255*'a' 01 'b'"},
      {"cut between characters", string(254, 'a') + "\u00E4", "FE 254*'a'"},
      {"as much as fits", string(200, 'a') + "\n" + string(98, 'b'), "C8 200*'a' 62 98*'b'"},
      {"a byte more than fits", string(200, 'a') + "\n" + string(99, 'b'), ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    ExactBytes data(300);
    const size_t length = MakeTxt(row.text, data.Data(), data.Size());
    EXPECT_EQ(Hex({data.Data(), length}), WireHex(row.expected));
  }
}

}  // namespace
