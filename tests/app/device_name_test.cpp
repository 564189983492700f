#include "app/device_name.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/support/fault.h"
#include "tests/support/network.h"
#include "tests/support/output.h"

namespace {

TEST(ChooseModel, TakesAKnownModelFromTheOnlyArgumentAndFillsTheField) {
  const struct {
    int argc;
    std::string argument;
    std::string model;
  } rows[] = {{1, "T5100b3", "T5140"},
              {3, "T5100b3", "T5140"},
              {2, "T5140", "T5140"},
              {2, "T5100b3", "T5100b3"},
              {2, "GLXE4800b5", "GLXE4800b5"},
              {2, "GLXE4700", "GLXE4700"},
              {2, "", "T5140"},
              {2, "T5100B3", "T5140"},
              {2, "T5100b3x", "T5140"},
              {2, "T5100b", "T5140"},
              {2, "GLXE4700" + std::string(42, ' '), "T5140"}};
  for (const auto& row : rows) {
    std::string argument = row.argument;
    char* const arguments[] = {nullptr, argument.data(), argument.data(), nullptr};
    char model[43];
    memset(model, '#', sizeof(model));
    ChooseModel(model, row.argc, arguments);
    EXPECT_EQ(std::string(model, 43), row.model + std::string(43 - row.model.size(), '\0'))
        << row.argument;
  }
}

std::string NameOf(const std::string& model, const uint8_t (&mac)[6]) {
  char name[65];
  memset(name, '#', sizeof(name));
  FormatDeviceName(name, model.c_str(), mac);
  return name;
}

TEST(FormatDeviceName, IsModelAndAddressInUpperCaseWithTwoDigitsForEveryByte) {
  EXPECT_EQ(NameOf("GLXE4800b5", {0x01, 0x02, 0x0a, 0xf0, 0x00, 0xff}),
            "GLXE4800b5_01-02-0A-F0-00-FF");
}

TEST(FormatDeviceName, IsCutToSixtyFourCharacters) {
  const std::string longest(46, 'm');
  EXPECT_EQ(NameOf(longest, {0, 0, 0, 0, 0, 0x12}), longest + "_00-00-00-00-00-12");
  EXPECT_EQ(NameOf(longest + "m", {0, 0, 0, 0, 0, 0x12}), longest + "m_00-00-00-00-00-1");
}

class BridgeMac : public testing::Test {
 protected:
  void ExpectUnchangedMac(const std::string& message) {
    const Log log = LogOf([&] { EXPECT_FALSE(ReadBridgeMac(mac)); });
    EXPECT_EQ(memcmp(mac, "\x01\x02\x03\x04\x05\x06", 6), 0);
    EXPECT_EQ(log.out, "");
    EXPECT_EQ(log.err, message);
  }

  const OwnNetwork network;
  uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
};

TEST_F(BridgeMac, IsUnchangedAndLoggedWithoutBridge) {
  ExpectUnchangedMac("[Bonjour] ioctl HWADDR error: No such device\n");
}

TEST_F(BridgeMac, IsUnchangedAndNotLoggedWithoutSocket) {
  socketFault.FailCall(1);
  ExpectUnchangedMac("");
  EXPECT_TRUE(socketFault.HasStruck());
}

}  // namespace
