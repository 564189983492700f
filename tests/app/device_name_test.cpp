#include "app/device_name.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/case_name.h"
#include "tests/support/command_line.h"
#include "tests/support/log_capture.h"
#include "tests/support/own_namespace.h"

namespace {

struct ModelCase {
  const char* name;
  std::vector<std::string> arguments;
  std::string model;
};

class ChooseModelTest : public testing::TestWithParam<ModelCase> {};

TEST_P(ChooseModelTest, ChoosesTheModel) {
  const CommandLine line(GetParam().arguments);
  char model[43];
  memset(model, '#', sizeof(model));
  ChooseModel(model, line.Count(), line.Values());
  // The field is zeros to its end.
  std::string field = GetParam().model;
  field.resize(43);
  EXPECT_EQ(std::string(model, 43), field);
}

INSTANTIATE_TEST_SUITE_P(
    , ChooseModelTest,
    testing::Values(
        ModelCase{"NoArgument", {}, "T5140"},
        ModelCase{"TwoArgumentsAreNotRead", {"T5100b3", "T5100b3"}, "T5140"},
        ModelCase{"ThreeArgumentsAreNotRead", {"T5100b3", "", ""}, "T5140"},
        ModelCase{"T5140", {"T5140"}, "T5140"}, ModelCase{"T5100b3", {"T5100b3"}, "T5100b3"},
        ModelCase{"GLXE4800b5", {"GLXE4800b5"}, "GLXE4800b5"},
        ModelCase{"GLXE4700", {"GLXE4700"}, "GLXE4700"}, ModelCase{"EmptyArgument", {""}, "T5140"},
        ModelCase{"LowerCase", {"t5100b3"}, "T5140"},
        ModelCase{"LowerCaseOfALongerModel", {"glxe4800b5"}, "T5140"},
        ModelCase{"UpperCase", {"T5100B3"}, "T5140"},
        ModelCase{"OneCharacterAppended", {"T5100b3x"}, "T5140"},
        ModelCase{"BlankAppended", {"T5100b3 "}, "T5140"},
        ModelCase{"OneCharacterShort", {"T5100b"}, "T5140"},
        ModelCase{"OtherTextOfTheSameLength", {"GLXE4701"}, "T5140"},
        ModelCase{"FortyTwoCharacters", {std::string(42, 'T')}, "T5140"},
        ModelCase{"FortyThreeCharacters", {std::string(43, 'T')}, "T5140"},
        ModelCase{"FiftyCharacters", {std::string(50, 'T')}, "T5140"},
        ModelCase{
            "FiftyCharactersThatBeginWithAModel", {"GLXE4700" + std::string(42, ' ')}, "T5140"}),
    CaseName());

TEST(FormatDeviceName, IsModelAndAddressInUpperCase) {
  char name[65];
  FormatDeviceName(name, "T5140", {0x00, 0x11, 0x22, 0xAA, 0xBB, 0xCC});
  EXPECT_STREQ(name, "T5140_00-11-22-AA-BB-CC");
}

TEST(FormatDeviceName, UsesTwoDigitsForEveryByteInOrder) {
  char name[65];
  FormatDeviceName(name, "GLXE4800b5", {0x01, 0x02, 0x0a, 0xf0, 0x00, 0xff});
  EXPECT_STREQ(name, "GLXE4800b5_01-02-0A-F0-00-FF");
}

TEST(FormatDeviceName, HasZerosForNoAddress) {
  char name[65];
  FormatDeviceName(name, "T5140", {});
  EXPECT_STREQ(name, "T5140_00-00-00-00-00-00");
}

TEST(FormatDeviceName, OfFortySixCharactersOfModelIsTheLongestThatFits) {
  char name[65];
  FormatDeviceName(name, std::string(46, 'm').c_str(), {0, 0, 0, 0, 0, 0x12});
  EXPECT_EQ(std::string(name), std::string(46, 'm') + "_00-00-00-00-00-12");
}

TEST(FormatDeviceName, IsCutToSixtyFourCharacters) {
  char name[65];
  memset(name, '#', sizeof(name));
  FormatDeviceName(name, std::string(47, 'm').c_str(), {0, 0, 0, 0, 0, 0x12});
  EXPECT_EQ(std::string(name), std::string(47, 'm') + "_00-00-00-00-00-1");
}

class BridgeMac : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(EnterOwnNetwork()) << strerror(errno); }

  Log Read() {
    return LogOf([&] { found = ReadBridgeMac(mac); });
  }

  uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
  bool found = false;
};

TEST_F(BridgeMac, IsReadFromTheBridge) {
  ASSERT_TRUE(AddBridge({0x00, 0x11, 0x22, 0xAA, 0xBB, 0xCC})) << strerror(errno);
  const Log log = Read();
  EXPECT_TRUE(found);
  EXPECT_EQ(memcmp(mac, "\x00\x11\x22\xAA\xBB\xCC", 6), 0);
  EXPECT_EQ(log.out, "");
  EXPECT_EQ(log.err, "");
}

TEST_F(BridgeMac, IsUnchangedAndLoggedWithoutBridge) {
  const Log log = Read();
  EXPECT_FALSE(found);
  EXPECT_EQ(memcmp(mac, "\x01\x02\x03\x04\x05\x06", 6), 0);
  EXPECT_EQ(log.out, "");
  EXPECT_EQ(log.err, "[Bonjour] ioctl HWADDR error: No such device\n");
}

TEST_F(BridgeMac, IsUnchangedAndNotLoggedWithoutSocket) {
  ASSERT_TRUE(AddBridge({0x00, 0x11, 0x22, 0xAA, 0xBB, 0xCC})) << strerror(errno);
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const Log log = LogOf([&] {
    const rlimit none = {0, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    found = ReadBridgeMac(mac);
    setrlimit(RLIMIT_NOFILE, &limit);
  });
  EXPECT_FALSE(found);
  EXPECT_EQ(memcmp(mac, "\x01\x02\x03\x04\x05\x06", 6), 0);
  EXPECT_EQ(log.err, "");
  EXPECT_EQ(log.out, "");
}

TEST_F(BridgeMac, LeavesNoSocketOpen) {
  const int before = dup(STDOUT_FILENO);
  close(before);
  Read();
  const int after = dup(STDOUT_FILENO);
  close(after);
  EXPECT_EQ(after, before);
}

}  // namespace
