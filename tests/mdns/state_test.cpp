#include "mdns/state.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/fault.h"

namespace {

TEST(State, IsAsAtLoad) {
  EXPECT_EQ(GetBonjourInitStatus(), 0u);
  EXPECT_EQ(multicastSocket.Get(), -1);
  EXPECT_FALSE(IsTerminating());
  EXPECT_FALSE(IsAnyInterfaceConnected());
  EXPECT_STREQ(GetInterfaceAddress(0).text, "");
  EXPECT_STREQ(GetInterfaceAddress(1).text, "");
  EXPECT_EQ(responderState.notifyFlag.Get(), 0u);
  EXPECT_EQ(responderState.waitFlag.Get(), 0u);
  EXPECT_EQ(sizeof(responderState.interfaceName[0]), 15u);
}

TEST(GetDeviceName, CopiesAtMostTheSizeAndTheNameAndNoTerminator) {
  SetDeviceName("T5140_00-11");
  std::string buffer(8, 'x');
  EXPECT_EQ(GetDeviceName(buffer.data(), 5), buffer.data());
  EXPECT_EQ(buffer, "T5140xxx");
  SetDeviceName("R2");
  GetDeviceName(buffer.data(), 8);
  EXPECT_EQ(buffer, "R2140xxx");
  SetDeviceName(std::string(64, 'a') + "b");
  char longest[70] = {};
  EXPECT_EQ(std::string(GetDeviceName(longest, 69)), std::string(64, 'a'));
}

TEST(State, ConnectedMeansAnyInterface) {
  responderState.connected[1].Set(1);
  EXPECT_TRUE(IsAnyInterfaceConnected());
  responderState.connected[1].Set(0);
  responderState.connected[0].Set(1);
  EXPECT_TRUE(IsAnyInterfaceConnected());
  responderState.connected[0].Set(0);
  EXPECT_FALSE(IsAnyInterfaceConnected());
}

TEST(State, NotifyFlagIsSetAlone) {
  SetNotifyFlag();
  EXPECT_EQ(responderState.notifyFlag.Get(), 1u);
  EXPECT_EQ(responderState.waitFlag.Get(), 0u);
}

TEST(State, ReleaseClearsTheFlagAndThenWakesTheWaiters) {
  SetWaitFlag();
  EXPECT_EQ(responderState.waitFlag.Get(), 1u);
  onNextBroadcast = [] { EXPECT_EQ(responderState.waitFlag.Get(), 0u); };
  ReleaseWaiters();
  EXPECT_EQ(responderState.waitFlag.Get(), 0u);
  EXPECT_EQ(onNextBroadcast.load(), nullptr);
}

}  // namespace
