#include "mdns/state.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "tests/support/fault.h"

namespace {

TEST(State, IsAsAtLoad) {
  EXPECT_EQ(GetBonjourInitStatus(), 0u);
  EXPECT_EQ(multicastSocket.Get(), -1);
  EXPECT_EQ(bTerminate.Get(), 0u);
  EXPECT_FALSE(IsTerminating());
  EXPECT_FALSE(IsAnyInterfaceConnected());
  EXPECT_STREQ(GetInterfaceAddress(0).text, "");
  EXPECT_STREQ(GetInterfaceAddress(1).text, "");
  char name[8] = {};
  EXPECT_STREQ(GetDeviceName(name, 7), "");
}

TEST(State, NamesTheInterfacesAndTheGroup) {
  EXPECT_STREQ(kReservedName, "qxSkipDevName");
  EXPECT_STREQ(kMdnsGroup, "224.0.0.251");
  EXPECT_EQ(kMdnsPort, 5353);
}

TEST(State, InterfaceNamesHaveFieldsOf15Bytes) {
  EXPECT_EQ(sizeof(responderState.interfaceName), 30u);
  EXPECT_EQ(sizeof(responderState.interfaceName[0]), 15u);
}

TEST(GetDeviceName, CopiesFiveBytesAndNoTerminator) {
  SetDeviceName("T5140_00-11");
  char buffer[8];
  memset(buffer, 'x', sizeof(buffer));
  EXPECT_EQ(GetDeviceName(buffer, 5), buffer);
  EXPECT_EQ(std::string(buffer, 8), "T5140xxx");
}

TEST(GetDeviceName, CopiesNoMoreThanTheName) {
  SetDeviceName("T51");
  char buffer[8];
  memset(buffer, 'x', sizeof(buffer));
  GetDeviceName(buffer, 8);
  EXPECT_EQ(std::string(buffer, 8), "T51xxxxx");
}

TEST(GetDeviceName, HasAtMost64Characters) {
  SetDeviceName(std::string(64, 'a') + "b");
  char buffer[70] = {};
  EXPECT_EQ(std::string(GetDeviceName(buffer, 69)), std::string(64, 'a'));
}

TEST(InterfaceAddress, IsDottedText) {
  responderState.interfaceAddress[0].Set(htonl(0xC0A80101));
  responderState.interfaceAddress[1].Set(htonl(0xFFFFFFFE));
  EXPECT_STREQ(GetInterfaceAddress(0).text, "192.168.1.1");
  EXPECT_STREQ(GetInterfaceAddress(1).text, "255.255.255.254");
}

TEST(Interfaces, CountAsConnectedWhenAnyIs) {
  responderState.connected[1].Set(1);
  EXPECT_TRUE(IsAnyInterfaceConnected());
  responderState.connected[1].Set(0);
  responderState.connected[0].Set(1);
  EXPECT_TRUE(IsAnyInterfaceConnected());
  responderState.connected[0].Set(0);
  EXPECT_FALSE(IsAnyInterfaceConnected());
}

TEST(StopFlag, IsReadAsATruth) {
  bTerminate.Set(1);
  EXPECT_TRUE(IsTerminating());
  bTerminate.Set(0);
}

TEST(Status, IsTheStatesWord) {
  responderState.initStatus.Set(1);
  EXPECT_EQ(GetBonjourInitStatus(), 1u);
  responderState.initStatus.Set(0);
}

TEST(Flags, AreClearAtFirst) {
  EXPECT_EQ(bTerminate.Get(), 0u);
  EXPECT_EQ(GetBonjourInitStatus(), 0u);
  EXPECT_EQ(responderState.notifyFlag.Get(), 0u);
  EXPECT_EQ(responderState.waitFlag.Get(), 0u);
}

TEST(Flags, AreSetAndReleased) {
  SetNotifyFlag();
  EXPECT_EQ(responderState.notifyFlag.Get(), 1u);
  SetWaitFlag();
  EXPECT_EQ(responderState.waitFlag.Get(), 1u);
  ReleaseWaiters();
  EXPECT_EQ(responderState.waitFlag.Get(), 0u);
  EXPECT_EQ(responderState.notifyFlag.Get(), 1u);
}

TEST(Flags, ReleaseClearsTheFlagAndThenWakesEveryWaiter) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  int waiting = 0;
  SetWaitFlag();
  const auto wait = [&] {
    pthread_mutex_lock(&mutex);
    ++waiting;
    while (responderState.waitFlag.Get() != 0) {
      pthread_cond_wait(&responderState.stateCond, &mutex);
    }
    pthread_mutex_unlock(&mutex);
  };
  onNextBroadcast = [] { EXPECT_EQ(responderState.waitFlag.Get(), 0u); };
  std::thread first(wait);
  std::thread second(wait);
  for (bool both = false; !both;) {
    pthread_mutex_lock(&mutex);
    both = waiting == 2;
    if (both) ReleaseWaiters();
    pthread_mutex_unlock(&mutex);
  }
  first.join();
  second.join();
  EXPECT_EQ(onNextBroadcast.load(), nullptr);
}

}  // namespace
