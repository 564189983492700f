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
#include <fstream>
#include <sstream>
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

// In a network namespace without interfaces.
class SocketTest : public testing::Test {
 protected:
  SocketTest() {
    strcpy(responderState.interfaceName[0], "br0");
    strcpy(responderState.interfaceName[1], "qxSkipDevName");
    responderState.interfaceAddress[0].Set(INADDR_NONE);
    responderState.connected[0].Set(0);
    responderState.mdnsDestination = SocketAddress("224.0.0.251", 5353);
    multicastSocket.Set(-1);
  }
  ~SocketTest() override {
    if (multicastSocket.Get() >= 0) CloseMulticastSocket();
  }

  static void ExpectNothingOpen() {
    EXPECT_EQ(multicastSocket.Get(), -1);
    EXPECT_EQ(responderState.connected[0].Get(), 0u);
  }

  const OwnNetwork network;
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

// How many descriptors the process has open. The lowest free one would not tell: those that capture
// the output lie below the socket and are free again afterwards.
int OpenDescriptors() {
  DIR* const directory = opendir("/proc/self/fd");
  int count = 0;
  while (readdir(directory) != nullptr) ++count;
  closedir(directory);
  return count;
}

// UpdateHostIP: the address of an interface

TEST_F(BridgeTest, AddressFollowsTheInterface) {
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(UpdateHostIP(0), 1u); }), "");
  EXPECT_STREQ(GetInterfaceAddress(0).text, "192.168.1.1");
  SetAddress("br0", "10.20.30.40");
  EXPECT_EQ(UpdateHostIP(0), 1u);
  EXPECT_STREQ(GetInterfaceAddress(0).text, "10.20.30.40");
}

TEST_F(SocketTest, InterfaceThatIsDownHasAnAddress) {
  AddBridge("br0");
  SetAddress("br0", "192.168.1.1");
  SetInterfaceUp("br0", false);
  EXPECT_EQ(UpdateHostIP(0), 1u);
  EXPECT_STREQ(GetInterfaceAddress(0).text, "192.168.1.1");
}

TEST_F(BridgeTest, EachSlotHasItsOwnInterface) {
  strcpy(responderState.interfaceName[1], "lo");
  EXPECT_EQ(UpdateHostIP(1), 1u);
  EXPECT_STREQ(GetInterfaceAddress(1).text, "127.0.0.1");
  EXPECT_STREQ(GetInterfaceAddress(0).text, "");
}

TEST_F(SocketTest, MissingInterfaceIsReported) {
  CapturedOutput output;
  EXPECT_EQ(UpdateHostIP(0), 0u);
  EXPECT_EQ(output.Stdout(), "[Bonjour] ioctl SIOCGIFFLAGS failed:br0\n");
  EXPECT_EQ(output.Stderr(), "[Bonjour] ioctl SIOCGIFFLAGS failed: No such device\n");
}

TEST_F(SocketTest, InterfaceWithoutAddressIsReported) {
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

TEST_F(BridgeTest, AddressRequestsLeaveNoDescriptorOpen) {
  const int before = OpenDescriptors();
  UpdateHostIP(0);
  StdoutOf([] { UpdateHostIP(1); });
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(BridgeTest, AddressIsReadWhileItIsWritten) {
  std::thread writer([] {
    for (int i = 0; i < 100; ++i) UpdateHostIP(0);
  });
  for (int i = 0; i < 1000; ++i) {
    const std::string seen = GetInterfaceAddress(0).text;
    EXPECT_TRUE(seen.empty() || seen == "192.168.1.1") << seen;
  }
  writer.join();
}

template <typename T>
T Option(int level, int option) {
  T value{};
  socklen_t size = sizeof(value);
  EXPECT_EQ(getsockopt(multicastSocket.Get(), level, option, &value, &size), 0);
  return value;
}

// The set-up

TEST_F(BridgeTest, SocketIsBoundToTheMdnsPortAndTheBridge) {
  SetUpSocket();
  EXPECT_EQ(responderState.connected[0].Get(), 1u);
  EXPECT_EQ(responderState.connected[1].Get(), 0u);
  sockaddr_in name{};
  socklen_t size = sizeof(name);
  ASSERT_EQ(getsockname(multicastSocket.Get(), reinterpret_cast<sockaddr*>(&name), &size), 0);
  EXPECT_EQ(ntohs(name.sin_port), 5353);
  EXPECT_STREQ(inet_ntoa(name.sin_addr), "0.0.0.0");
  char device[16] = {};
  size = sizeof(device);
  ASSERT_EQ(getsockopt(multicastSocket.Get(), SOL_SOCKET, SO_BINDTODEVICE, device, &size), 0);
  EXPECT_STREQ(device, "br0");
}

TEST_F(BridgeTest, OptionsAreSetInOrderWithTheirExactBytes) {
  SetUpSocket();
  const std::vector<SocketOption> options = SetOptions();
  ASSERT_EQ(options.size(), 6u);
  const auto expect = [&](size_t i, int level, int option, const Bytes& value) {
    EXPECT_EQ(options[i].level, level) << i;
    EXPECT_EQ(options[i].option, option) << i;
    EXPECT_EQ(Hex(options[i].value), Hex(value)) << i;
  };
  const int on = 1;
  Bytes one(sizeof(on));
  memcpy(one.data(), &on, sizeof(on));
  const timeval fiveSeconds = {5, 0};
  Bytes timeout(sizeof(fiveSeconds));
  memcpy(timeout.data(), &fiveSeconds, sizeof(fiveSeconds));
  expect(0, SOL_SOCKET, SO_REUSEADDR, one);
  expect(1, SOL_SOCKET, SO_BINDTODEVICE, Wire("'br0' 29*00"));
  expect(2, IPPROTO_IP, IP_ADD_MEMBERSHIP, Wire("E0 00 00 FB C0 A8 01 01"));
  expect(3, IPPROTO_IP, IP_MULTICAST_IF, Wire("00 00 00 00"));
  expect(4, IPPROTO_IP, IP_MULTICAST_LOOP, Wire("00"));
  expect(5, SOL_SOCKET, SO_RCVTIMEO, timeout);
}

TEST_F(BridgeTest, KernelReportsTheOptions) {
  SetUpSocket();
  EXPECT_EQ(Option<int>(SOL_SOCKET, SO_REUSEADDR), 1);
  EXPECT_EQ(Option<int>(SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
  EXPECT_EQ(Option<int>(IPPROTO_IP, IP_MULTICAST_LOOP), 0);
  EXPECT_EQ(Option<in_addr>(IPPROTO_IP, IP_MULTICAST_IF).s_addr, 0u);
  const auto timeout = Option<timeval>(SOL_SOCKET, SO_RCVTIMEO);
  EXPECT_EQ(timeout.tv_sec, 5);
  EXPECT_EQ(timeout.tv_usec, 0);
}

TEST_F(BridgeTest, SocketJoinsTheGroupOnTheBridge) {
  SetUpSocket();
  std::ifstream file("/proc/thread-self/net/igmp");
  std::string line;
  std::string device;
  bool joined = false;
  while (std::getline(file, line)) {
    if (line.find(':') != std::string::npos && line[0] != '\t') device = line;
    if (line.find("FB0000E0") != std::string::npos) {
      joined = device.find("br0") != std::string::npos;
    }
  }
  EXPECT_TRUE(joined);
}

TEST_F(BridgeTest, SocketHearsTheGroupAndNotItself) {
  SetUpSocket();
  const OtherHost host("br0");
  const Bytes own = Wire("01 01");
  const sockaddr_in group = SocketAddress("224.0.0.251", 5353);
  ASSERT_EQ(sendto(multicastSocket.Get(), own.data(), own.size(), 0,
                   reinterpret_cast<const sockaddr*>(&group), sizeof(group)),
            2);
  EXPECT_EQ(host.ReceiveMulticast(), own);
  host.SendMulticast("192.168.1.9", Wire("02 02 02"));
  uint8_t buffer[16];
  sockaddr_in sender{};
  socklen_t size = sizeof(sender);
  EXPECT_EQ(recvfrom(multicastSocket.Get(), buffer, sizeof(buffer), 0,
                     reinterpret_cast<sockaddr*>(&sender), &size),
            3);
  EXPECT_STREQ(inet_ntoa(sender.sin_addr), "192.168.1.9");
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

TEST_F(SocketTest, SetupWithoutInterfaceOpensNothing) {
  CapturedOutput output;
  EXPECT_EQ(SocketSetup_For_Interface_N(), 0u);
  EXPECT_EQ(output.Stdout(),
            "[Bonjour] ioctl SIOCGIFFLAGS failed:br0\n"
            "[SocketSetup_For_Interface_N] UpdateHostIP error\n");
  EXPECT_EQ(output.Stderr(), "[Bonjour] ioctl SIOCGIFFLAGS failed: No such device\n");
  ExpectNothingOpen();
}

TEST_F(SocketTest, SetupWithoutAddressOpensNothing) {
  AddBridge("br0");
  CapturedOutput output;
  EXPECT_EQ(SocketSetup_For_Interface_N(), 0u);
  EXPECT_EQ(output.Stdout(),
            "[Bonjour] ioctl SIOCGIFADDR failed:br0\n"
            "[SocketSetup_For_Interface_N] UpdateHostIP error\n");
  ExpectNothingOpen();
}

TEST_F(BridgeTest, WithoutAMulticastSocketNothingIsLogged) {
  CapturedOutput output;
  multicastSocket.Set(99);
  socketFault.FailCall(2);
  EXPECT_EQ(SocketSetup_For_Interface_N(), 0u);
  EXPECT_TRUE(socketFault.HasStruck());
  EXPECT_EQ(output.Stdout() + output.Stderr(), "");
  ExpectNothingOpen();
}

TEST_F(BridgeTest, PortInUseIsReportedAndClosesTheSocket) {
  const UdpSocket taken("0.0.0.0", 5353);
  const int before = OpenDescriptors();
  {
    CapturedOutput output;
    EXPECT_EQ(SocketSetup_For_Interface_N(), 0u);
    EXPECT_EQ(output.Stderr(), "[Bonjour] discovery bind: Address already in use\n");
    EXPECT_EQ(output.Stdout(), "");
  }
  ExpectNothingOpen();
  EXPECT_EQ(OpenDescriptors(), before);
}

struct OptionRow {
  int call;
  const char* message;
};

class FailingOptionTest : public BridgeTest, public testing::WithParamInterface<OptionRow> {};

// In the order in which they are set, the bind between the first and the second.
INSTANTIATE_TEST_SUITE_P(Options, FailingOptionTest,
                         testing::Values(OptionRow{1, "[Bonjour] setsockopt SO_REUSEADDR"},
                                         OptionRow{2, "[Bonjour] setsockopt SO_BINDTODEVICE"},
                                         OptionRow{3, "[Bonjour] setsockopt IP_ADD_MEMBERSHIP"},
                                         OptionRow{4, "[Bonjour] setsockopt IP_MULTICAST_IF"},
                                         OptionRow{5, "[Bonjour] setsockopt IP_MULTICAST_LOOP"},
                                         OptionRow{6, "[Bonjour] setsockopt SO_RCVTIMEO"}),
                         [](const auto& row) { return std::to_string(row.param.call); });

TEST_P(FailingOptionTest, IsReportedAndClosesTheSocket) {
  const int before = OpenDescriptors();
  {
    CapturedOutput output;
    setsockoptFault.FailCall(GetParam().call);
    // A close that succeeds may leave any errno behind; reported is the failed call's.
    onClose = [](int) { errno = EIO; };
    EXPECT_EQ(SocketSetup_For_Interface_N(), 0u);
    onClose = nullptr;
    EXPECT_TRUE(setsockoptFault.HasStruck());
    EXPECT_EQ(output.Stderr(), std::string(GetParam().message) + ": Operation not permitted\n");
    EXPECT_EQ(output.Stdout(), "");
  }
  ExpectNothingOpen();
  EXPECT_EQ(OpenDescriptors(), before);
}

// The end of the receive

TEST_F(BridgeTest, EndedReceiveReturnsAtOnceAndSendingGoesOn) {
  SetUpSocket();
  const OtherHost host("br0");
  uint8_t byte;
  // Without the end both would take the socket's five seconds, and return -1.
  std::thread receiving([&] { EXPECT_EQ(recv(multicastSocket.Get(), &byte, 1, 0), 0); });
  EndReceive();
  receiving.join();
  EXPECT_EQ(recv(multicastSocket.Get(), &byte, 1, 0), 0);
  const Bytes packet = Wire("01 02");
  const sockaddr_in group = SocketAddress("224.0.0.251", 5353);
  EXPECT_EQ(sendto(multicastSocket.Get(), packet.data(), packet.size(), 0,
                   reinterpret_cast<const sockaddr*>(&group), sizeof(group)),
            2);
  EXPECT_EQ(host.ReceiveMulticast(), packet);
  EXPECT_FALSE(IsAnyoneSending());
}

TEST_F(BridgeTest, ReceiveIsNotEndedOnASocketThatIsToBeClosed) {
  SetUpSocket();
  const UdpSocket other("127.0.0.1");
  other.SetReceiveTimeout(10);
  CloseSending();
  // The descriptor may stand for another socket by now.
  CloseMulticastSocket();
  multicastSocket.Set(other.Get());
  EndReceive();
  uint8_t byte;
  EXPECT_EQ(recv(other.Get(), &byte, 1, 0), -1);
  multicastSocket.Set(-1);
}

TEST_F(SocketTest, EndingTheReceiveWithoutASocketDoesNothing) {
  EndReceive();
  EXPECT_FALSE(IsAnyoneSending());
}

// The close

TEST_F(BridgeTest, CloseResetsTheStateAndClosesTheDescriptor) {
  SetUpSocket();
  const int descriptor = multicastSocket.Get();
  CloseMulticastSocket();
  ExpectNothingOpen();
  EXPECT_EQ(close(descriptor), -1);
}

TEST_F(BridgeTest, StateIsResetBeforeTheDescriptorIsClosed) {
  SetUpSocket();
  static int closed;
  closed = -1;
  onClose = [](int descriptor) {
    closed = descriptor;
    EXPECT_EQ(responderState.connected[0].Get(), 0u);
    EXPECT_EQ(multicastSocket.Get(), -1);
    onClose = nullptr;
  };
  const int descriptor = multicastSocket.Get();
  CloseMulticastSocket();
  EXPECT_EQ(closed, descriptor);
}

TEST_F(BridgeTest, SetupWorksAgainAfterAClose) {
  SetUpSocket();
  CloseMulticastSocket();
  SetUpSocket();
}

}  // namespace
