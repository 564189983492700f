#include "base/interface.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "tests/support/fault.h"
#include "tests/support/network.h"

namespace {

// In a network namespace with the loopback interface alone, whose MAC address is zeros.
class InterfaceTest : public testing::Test {
 protected:
  const OwnNetwork network;
  uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
  in_addr_t address = 7;
};

TEST_F(InterfaceTest, AnswersAllThreeRequests) {
  InterfaceQuery loopback("lo");
  EXPECT_TRUE(loopback.IsOpen());
  EXPECT_TRUE(loopback.Exists());
  EXPECT_TRUE(loopback.ReadAddress(address));
  EXPECT_EQ(address, inet_addr("127.0.0.1"));
  EXPECT_TRUE(loopback.ReadMac(mac));
  EXPECT_EQ(memcmp(mac, "\0\0\0\0\0\0", 6), 0);
}

TEST_F(InterfaceTest, RefusedRequestsSetErrnoAndNothingElse) {
  InterfaceQuery missing("br0");
  EXPECT_FALSE(missing.Exists());
  EXPECT_EQ(errno, ENODEV);
  EXPECT_FALSE(missing.ReadAddress(address));
  EXPECT_EQ(address, 7u);
  EXPECT_FALSE(missing.ReadMac(mac));
  EXPECT_EQ(memcmp(mac, "\1\2\3\4\5\6", 6), 0);
}

TEST_F(InterfaceTest, IsNotOpenWithoutAControlSocket) {
  socketFault.FailCall(1);
  EXPECT_FALSE(InterfaceQuery("lo").IsOpen());
  EXPECT_TRUE(socketFault.HasStruck());
}

}  // namespace
