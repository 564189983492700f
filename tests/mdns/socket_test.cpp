// The multicast socket: the address of its interface, its set-up, the end of its receive, its
// close.
#include "mdns/socket.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "mdns/state.h"
#include "records/sender.h"
#include "tests/support/bytes.h"
#include "tests/support/fault.h"
#include "tests/support/network.h"
#include "tests/support/output.h"

namespace {

// How many descriptors the process has open. The lowest free one would not tell: those that capture
// the output lie below the socket and are free again afterwards.
int OpenDescriptors() {
  DIR* const directory = opendir("/proc/self/fd");
  int count = 0;
  while (readdir(directory) != nullptr) ++count;
  closedir(directory);
  return count;
}

// In a network namespace without interfaces.
class SocketTest : public testing::Test {
 protected:
  SocketTest() {
    strcpy(responderState.interfaceName[0], "br0");
    responderState.mdnsDestination = SocketAddress("224.0.0.251", 5353);
  }

  void ExpectNothingOpen() const {
    EXPECT_EQ(multicastSocket.Get(), -1);
    EXPECT_EQ(responderState.connected[0].Get(), 0u);
    EXPECT_EQ(OpenDescriptors(), descriptorsBefore);
  }

  const OwnNetwork network;
  const int descriptorsBefore = OpenDescriptors();
};

// With the bridge br0, up, and its address.
class BridgeTest : public SocketTest {
 protected:
  BridgeTest() {
    AddBridge("br0");
    SetAddress("br0", "192.168.1.1");
    SetInterfaceUp("br0", true);
  }

  void SetUpSocket() {
    EXPECT_EQ(StdoutOf([] { EXPECT_EQ(SocketSetup_For_Interface_N(), 1u); }),
              "[Bonjour] Interface: br0 is connected\n");
    ASSERT_GE(multicastSocket.Get(), 0);
  }
};

// UpdateHostIP: the address of an interface

TEST_F(BridgeTest, AddressIsThatOfTheSlotsInterfaceWhichMayBeDown) {
  SetInterfaceUp("br0", false);
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(UpdateHostIP(0), 1u); }), "");
  EXPECT_STREQ(GetInterfaceAddress(0).text, "192.168.1.1");
  SetAddress("br0", "10.20.30.40");
  strcpy(responderState.interfaceName[1], "lo");
  EXPECT_EQ(UpdateHostIP(1), 1u);
  EXPECT_STREQ(GetInterfaceAddress(0).text, "192.168.1.1");
  EXPECT_STREQ(GetInterfaceAddress(1).text, "127.0.0.1");
  EXPECT_EQ(UpdateHostIP(0), 1u);
  EXPECT_STREQ(GetInterfaceAddress(0).text, "10.20.30.40");
  ExpectNothingOpen();
}

TEST_F(SocketTest, InterfaceWithoutAddressIsReportedAndChangesNothing) {
  AddBridge("br0");
  responderState.interfaceAddress[0].Set(inet_addr("10.0.0.1"));
  CapturedOutput output;
  EXPECT_EQ(UpdateHostIP(0), 0u);
  EXPECT_EQ(output.Stdout(), "[Bonjour] ioctl SIOCGIFADDR failed:br0\n");
  EXPECT_EQ(output.Stderr(),
            "[Bonjour] ioctl SIOCGIFADDR failed: Cannot assign requested address\n");
  EXPECT_STREQ(GetInterfaceAddress(0).text, "10.0.0.1");
}

TEST_F(SocketTest, WithoutAControlSocketNothingIsLogged) {
  CapturedOutput output;
  socketFault.FailCall(1);
  EXPECT_EQ(UpdateHostIP(0), 0u);
  EXPECT_TRUE(socketFault.HasStruck());
  EXPECT_EQ(output.Stdout() + output.Stderr(), "");
}

// The set-up

TEST_F(BridgeTest, SocketIsBoundToTheMdnsPortAndSetUpInOrder) {
  SetUpSocket();
  EXPECT_EQ(responderState.connected[0].Get(), 1u);
  EXPECT_EQ(responderState.connected[1].Get(), 0u);
  sockaddr_in name{};
  socklen_t size = sizeof(name);
  ASSERT_EQ(getsockname(multicastSocket.Get(), reinterpret_cast<sockaddr*>(&name), &size), 0);
  EXPECT_EQ(ntohs(name.sin_port), 5353);
  EXPECT_STREQ(inet_ntoa(name.sin_addr), "0.0.0.0");

  const int on = 1;
  const timeval fiveSeconds = {5, 0};
  const auto bytesOf = [](const auto& value) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(&value);
    return Bytes(bytes, bytes + sizeof(value));
  };
  const SocketOption expected[] = {
      {SOL_SOCKET, SO_REUSEADDR, bytesOf(on)},
      {SOL_SOCKET, SO_BINDTODEVICE, Wire("'br0' 29*00")},
      {IPPROTO_IP, IP_ADD_MEMBERSHIP, Wire("E0 00 00 FB C0 A8 01 01")},
      {IPPROTO_IP, IP_MULTICAST_IF, Wire("00 00 00 00")},
      {IPPROTO_IP, IP_MULTICAST_LOOP, Wire("00")},
      {SOL_SOCKET, SO_RCVTIMEO, bytesOf(fiveSeconds)},
  };
  const std::vector<SocketOption> options = SetOptions();
  ASSERT_EQ(options.size(), std::size(expected));
  for (size_t i = 0; i < options.size(); ++i) {
    EXPECT_EQ(options[i].level, expected[i].level) << i;
    EXPECT_EQ(options[i].option, expected[i].option) << i;
    EXPECT_EQ(Hex(options[i].value), Hex(expected[i].value)) << i;
  }
}

TEST_F(BridgeTest, SocketMayBeDescriptor0) {
  const int input = dup(0);
  StdoutOf([] {
    close(0);
    EXPECT_EQ(SocketSetup_For_Interface_N(), 1u);
  });
  EXPECT_EQ(multicastSocket.Get(), 0);
  CloseMulticastSocket();
  dup2(input, 0);
  close(input);
}

// A set-up that fails

TEST_F(SocketTest, SetupWithoutInterfaceIsReportedAndOpensNothing) {
  {
    CapturedOutput output;
    EXPECT_EQ(SocketSetup_For_Interface_N(), 0u);
    EXPECT_EQ(output.Stdout(),
              "[Bonjour] ioctl SIOCGIFFLAGS failed:br0\n"
              "[SocketSetup_For_Interface_N] UpdateHostIP error\n");
    EXPECT_EQ(output.Stderr(), "[Bonjour] ioctl SIOCGIFFLAGS failed: No such device\n");
  }
  ExpectNothingOpen();
}

TEST_F(BridgeTest, WithoutAMulticastSocketNothingIsLogged) {
  multicastSocket.Set(99);
  socketFault.FailCall(2);
  {
    CapturedOutput output;
    EXPECT_EQ(SocketSetup_For_Interface_N(), 0u);
    EXPECT_EQ(output.Stdout() + output.Stderr(), "");
  }
  EXPECT_TRUE(socketFault.HasStruck());
  ExpectNothingOpen();
}

TEST_F(BridgeTest, StepThatFailsIsReportedAndClosesTheSocket) {
  const char* const steps[] = {"setsockopt SO_REUSEADDR",      "setsockopt SO_BINDTODEVICE",
                               "setsockopt IP_ADD_MEMBERSHIP", "setsockopt IP_MULTICAST_IF",
                               "setsockopt IP_MULTICAST_LOOP", "setsockopt SO_RCVTIMEO"};
  // A close that succeeds may leave any errno behind; reported is the failed call's.
  onClose = [](int) { errno = EIO; };
  for (int call = 1; call <= 6; ++call) {
    {
      CapturedOutput output;
      setsockoptFault.FailCall(call);
      EXPECT_EQ(SocketSetup_For_Interface_N(), 0u);
      EXPECT_TRUE(setsockoptFault.HasStruck());
      EXPECT_EQ(output.Stderr(),
                std::string("[Bonjour] ") + steps[call - 1] + ": Operation not permitted\n");
      EXPECT_EQ(output.Stdout(), "");
    }
    ExpectNothingOpen();
  }
  onClose = nullptr;
  const UdpSocket taken("0.0.0.0", 5353);
  CapturedOutput output;
  EXPECT_EQ(SocketSetup_For_Interface_N(), 0u);
  EXPECT_EQ(output.Stderr(), "[Bonjour] discovery bind: Address already in use\n");
}

// The end of the receive

TEST_F(BridgeTest, EndedReceiveReturnsAtOnceAndSendingGoesOn) {
  EndReceive();  // Does nothing without a socket.
  SetUpSocket();
  uint8_t byte;
  // Without the end both would take the socket's five seconds, and return -1.
  std::thread receiving([&] { EXPECT_EQ(recv(multicastSocket.Get(), &byte, 1, 0), 0); });
  EndReceive();
  receiving.join();
  EXPECT_EQ(recv(multicastSocket.Get(), &byte, 1, 0), 0);
  const sockaddr_in group = SocketAddress("224.0.0.251", 5353);
  EXPECT_EQ(sendto(multicastSocket.Get(), "x", 1, 0, reinterpret_cast<const sockaddr*>(&group),
                   sizeof(group)),
            1);
  EXPECT_FALSE(IsAnyoneSending());
}

TEST_F(SocketTest, ReceiveIsNotEndedOnASocketThatIsToBeClosed) {
  // The descriptor may stand for another socket by then.
  const UdpSocket other("127.0.0.1");
  other.SetReceiveTimeout(10);
  multicastSocket.Set(other.Get());
  CloseSending();
  EndReceive();
  uint8_t byte;
  EXPECT_EQ(recv(other.Get(), &byte, 1, 0), -1);
}

TEST_F(BridgeTest, StateIsResetBeforeTheDescriptorIsClosed) {
  SetUpSocket();
  static int closed = -1;
  onClose = [](int descriptor) {
    onClose = nullptr;
    closed = descriptor;
    EXPECT_EQ(responderState.connected[0].Get(), 0u);
    EXPECT_EQ(multicastSocket.Get(), -1);
  };
  const int descriptor = multicastSocket.Get();
  CloseMulticastSocket();
  EXPECT_EQ(closed, descriptor);
  ExpectNothingOpen();
  SetUpSocket();
}

}  // namespace
