// The kernel's messages about the bridge: bytes by hand, and a kernel's own.
#include "standard/netlink.h"

#include <gtest/gtest.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "base/descriptor.h"
#include "tests/standard/other_host.h"
#include "tests/support/bytes.h"
#include "tests/support/network.h"

namespace {

constexpr int32_t kBridge = 7;
constexpr uint32_t kRunning = IFF_UP | IFF_RUNNING;

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Numbers in the order of the machine, as the kernel writes them.
template <typename T>
Bytes Number(T value) {
  Bytes bytes(sizeof(value));
  memcpy(bytes.data(), &value, sizeof(value));
  return bytes;
}

Bytes Padded(Bytes bytes) {
  bytes.resize((bytes.size() + 3) / 4 * 4);
  return bytes;
}

Bytes Attribute(uint16_t type, const Bytes& value) {
  return Padded(Number<uint16_t>(static_cast<uint16_t>(4 + value.size())) + Number(type) + value);
}

Bytes Message(uint16_t type, const Bytes& body, uint32_t sequence = 0, uint16_t flags = 0) {
  return Padded(Number<uint32_t>(static_cast<uint32_t>(16 + body.size())) + Number(type) +
                Number(flags) + Number(sequence) + Number<uint32_t>(0) + body);
}

Bytes LinkHeader(int32_t index, uint32_t flags, uint8_t family = 0) {
  return Bytes{family, 0} + Number<uint16_t>(1) + Number(index) + Number(flags) +
         Number<uint32_t>(0);
}

Bytes LinkMessage(uint32_t flags, int32_t index = kBridge, const char* name = "'br0' 00") {
  return Message(RTM_NEWLINK, LinkHeader(index, flags) + Attribute(3, Wire(name)) +
                                  Attribute(4, Number<uint32_t>(1500)) +
                                  Attribute(1, Wire("00 11 22 AA BB CC")));
}

Bytes AddressHeader(uint8_t family, uint8_t prefix, uint8_t flags, int32_t index = kBridge) {
  return Bytes{family, prefix, flags, 0} + Number(index);
}

Bytes Ipv4Message(uint16_t type, const char* address, int32_t index = kBridge) {
  return Message(type, AddressHeader(AF_INET, 24, IFA_F_PERMANENT, index) +
                           Attribute(IFA_ADDRESS, Wire(address)) +
                           Attribute(IFA_LOCAL, Wire(address)));
}

class NetlinkTest : public testing::Test {
 protected:
  bool Take(const Bytes& bytes) {
    const ExactBytes exact(bytes);
    return HandleNetlink(watch, "br0", exact.View().data(), exact.Size());
  }

  void KnowBridge() {
    Take(LinkMessage(kRunning));
    watch.mustReread = false;
  }

  std::string AddressAt(size_t i) const {
    return Hex({watch.link.addresses[i].address.bytes, sizeof(Address::bytes)}) + " /" +
           std::to_string(watch.link.addresses[i].prefixLength);
  }

  LinkWatch watch = {};
};

// Links

TEST_F(NetlinkTest, LinkIsDescribedByItsMessage) {
  Take(LinkMessage(kRunning));
  EXPECT_EQ(watch.index, kBridge);
  EXPECT_TRUE(watch.link.isUp);
  EXPECT_EQ(watch.link.mtu, 1500);
  EXPECT_EQ(Hex(watch.link.mac), "00 11 22 AA BB CC");
  EXPECT_TRUE(watch.mustReread) << "its addresses are not known yet";
}

TEST_F(NetlinkTest, LinkIsUpOnlyWithACarrier) {
  for (const uint32_t flags : {0u, unsigned{IFF_UP}, unsigned{IFF_RUNNING}}) {
    Take(LinkMessage(flags));
    EXPECT_FALSE(watch.link.isUp) << flags;
  }
}

// Also when it is up again before anybody looks.
TEST_F(NetlinkTest, LossOfTheLinkIsKeptInMind) {
  const auto carrier = [](uint32_t changes) {
    return Message(RTM_NEWLINK, LinkHeader(kBridge, kRunning) + Attribute(3, Wire("'br0' 00")) +
                                    Attribute(35, Number(changes)));
  };
  const struct {
    const char* what;
    Bytes messages;
    bool wasDown;
  } rows[] = {
      {"nothing new", carrier(2), false},
      {"an address", Ipv4Message(RTM_NEWADDR, "C0 A8 4D 01"), false},
      {"another link", LinkMessage(0, 8, "'eth0' 00"), false},
      {"down and up", LinkMessage(0) + carrier(2), true},
      {"the carrier came and went", carrier(4), true},
      {"deleted and made again", Message(RTM_DELLINK, LinkHeader(kBridge, 0)) + carrier(2), true},
  };
  for (const auto& row : rows) {
    Take(carrier(2));
    watch.wasDown = false;
    Take(row.messages);
    EXPECT_EQ(watch.wasDown, row.wasDown) << row.what;
  }
}

TEST_F(NetlinkTest, ChangeOfTheLinkKeepsItsAddresses) {
  KnowBridge();
  Take(Ipv4Message(RTM_NEWADDR, "C0 A8 4D 01"));
  Take(LinkMessage(0));
  EXPECT_FALSE(watch.link.isUp);
  EXPECT_EQ(watch.link.addressCount, 1);
  EXPECT_FALSE(watch.mustReread);
}

TEST_F(NetlinkTest, OtherLinksAreOfNoInterest) {
  Take(LinkMessage(kRunning, 8, "'eth0' 00"));
  Take(LinkMessage(kRunning, 9, "'br01' 00"));
  EXPECT_EQ(watch.index, 0);
}

TEST_F(NetlinkTest, NameWithoutTerminatorIsRead) {
  Take(LinkMessage(kRunning, kBridge, "'br0'"));
  EXPECT_EQ(watch.index, kBridge);
}

TEST_F(NetlinkTest, LinkThatGoesOrIsRenamedLeavesNothing) {
  for (const Bytes& end :
       {Message(RTM_DELLINK, LinkHeader(kBridge, 0)), LinkMessage(kRunning, kBridge, "'br1' 00")}) {
    KnowBridge();
    Take(Ipv4Message(RTM_NEWADDR, "C0 A8 4D 01"));
    Take(end);
    EXPECT_EQ(watch.index, 0);
    EXPECT_FALSE(watch.link.isUp);
    EXPECT_EQ(watch.link.addressCount, 0);
  }
}

TEST_F(NetlinkTest, LinkThatIsMadeAgainIsReadAgain) {
  KnowBridge();
  Take(Ipv4Message(RTM_NEWADDR, "C0 A8 4D 01"));
  Take(LinkMessage(kRunning, 12));
  EXPECT_EQ(watch.index, 12);
  EXPECT_EQ(watch.link.addressCount, 0);
  EXPECT_TRUE(watch.mustReread);
}

// A bridge that loses its last port says so with its own number and RTM_DELLINK.
TEST_F(NetlinkTest, BridgesTalkOfTheirPortsIsOfNoInterest) {
  KnowBridge();
  Take(Message(RTM_DELLINK, LinkHeader(kBridge, 0, AF_BRIDGE)));
  EXPECT_EQ(watch.index, kBridge);
}

TEST_F(NetlinkTest, LargerMtuThanAPacketIsCut) {
  Take(Message(RTM_NEWLINK, LinkHeader(kBridge, kRunning) + Attribute(3, Wire("'br0' 00")) +
                                Attribute(4, Number<uint32_t>(65536))));
  EXPECT_EQ(watch.link.mtu, 65535);
}

// Addresses

TEST_F(NetlinkTest, AddressesOfBothFamiliesAreKept) {
  KnowBridge();
  Take(Ipv4Message(RTM_NEWADDR, "C0 A8 4D 01"));
  Take(Message(RTM_NEWADDR,
               AddressHeader(AF_INET6, 64, 0) + Attribute(IFA_ADDRESS, Wire("FE 80 13*00 01"))));
  ASSERT_EQ(watch.link.addressCount, 2);
  EXPECT_EQ(AddressAt(0), WireHex("C0 A8 4D 01 12*00") + " /24");
  EXPECT_EQ(watch.link.addresses[0].address.family, Family::kIpv4);
  EXPECT_EQ(AddressAt(1), WireHex("FE 80 13*00 01") + " /64");
  EXPECT_EQ(watch.link.addresses[1].address.family, Family::kIpv6);
}

TEST_F(NetlinkTest, OwnEndOfAPeerIsTheAddressInEitherOrder) {
  for (const bool localFirst : {true, false}) {
    const Bytes local = Attribute(IFA_LOCAL, Wire("0A 00 00 01"));
    const Bytes peer = Attribute(IFA_ADDRESS, Wire("0A 00 00 02"));
    watch = {};
    KnowBridge();
    Take(Message(RTM_NEWADDR,
                 AddressHeader(AF_INET, 32, 0) + (localFirst ? local + peer : peer + local)));
    EXPECT_EQ(AddressAt(0), WireHex("0A 00 00 01 12*00") + " /32");
  }
}

TEST_F(NetlinkTest, SameAddressIsKeptOnce) {
  KnowBridge();
  Take(Ipv4Message(RTM_NEWADDR, "C0 A8 4D 01") + Ipv4Message(RTM_NEWADDR, "C0 A8 4D 01"));
  EXPECT_EQ(watch.link.addressCount, 1);
}

TEST_F(NetlinkTest, AddressThatGoesIsTakenOut) {
  KnowBridge();
  Take(Ipv4Message(RTM_NEWADDR, "C0 A8 4D 01") + Ipv4Message(RTM_NEWADDR, "C0 A8 4D 02") +
       Ipv4Message(RTM_NEWADDR, "C0 A8 4D 03"));
  Take(Ipv4Message(RTM_DELADDR, "C0 A8 4D 02"));
  ASSERT_EQ(watch.link.addressCount, 2);
  EXPECT_EQ(AddressAt(0), WireHex("C0 A8 4D 01 12*00") + " /24");
  EXPECT_EQ(AddressAt(1), WireHex("C0 A8 4D 03 12*00") + " /24");
}

// RFC 4862, section 5.4. The attribute has the flags that the byte has no room for, and wins.
TEST_F(NetlinkTest, TentativeAndFailedAddressesAreNotUsable) {
  const auto message = [](uint8_t byte, const Bytes& attribute) {
    return Message(RTM_NEWADDR, AddressHeader(AF_INET6, 64, byte) + attribute +
                                    Attribute(IFA_ADDRESS, Wire("FE 80 13*00 01")));
  };
  KnowBridge();
  Take(message(IFA_F_TENTATIVE, {}));
  EXPECT_EQ(watch.link.addressCount, 0);
  Take(message(0, Attribute(IFA_FLAGS, Number<uint32_t>(IFA_F_TENTATIVE))));
  EXPECT_EQ(watch.link.addressCount, 0);
  Take(message(IFA_F_TENTATIVE, Attribute(IFA_FLAGS, Number<uint32_t>(IFA_F_MANAGETEMPADDR))));
  EXPECT_EQ(watch.link.addressCount, 1);
  Take(message(IFA_F_DADFAILED, {}));
  EXPECT_EQ(watch.link.addressCount, 0) << "a duplicate that shows later";
}

TEST_F(NetlinkTest, AddressesOfOtherLinksAreOfNoInterest) {
  Take(Ipv4Message(RTM_NEWADDR, "C0 A8 4D 01", 0));
  KnowBridge();
  Take(Ipv4Message(RTM_NEWADDR, "C0 A8 4D 01", kBridge + 1));
  EXPECT_EQ(watch.link.addressCount, 0);
}

TEST_F(NetlinkTest, AfterMoreAddressesThanAreKeptOneThatGoesAsksForAnother) {
  KnowBridge();
  for (uint8_t i = 1; i <= kLinkAddressesMax + 1; ++i) {
    const Bytes address = {10, 0, 0, i};
    Take(Message(RTM_NEWADDR, AddressHeader(AF_INET, 24, 0) + Attribute(IFA_LOCAL, address)));
  }
  EXPECT_EQ(watch.link.addressCount, kLinkAddressesMax);
  EXPECT_FALSE(watch.mustReread);
  Take(Ipv4Message(RTM_DELADDR, "0A 00 00 01"));
  EXPECT_TRUE(watch.mustReread);
}

// Replies

TEST_F(NetlinkTest, ReplyEndsWithTheLastRequestsNumber) {
  watch.sequence = 5;
  EXPECT_TRUE(Take(Message(NLMSG_DONE, Number<uint32_t>(0), 5)));
  EXPECT_TRUE(Take(LinkMessage(kRunning) + Message(NLMSG_ERROR, Bytes(20), 5)));
  EXPECT_FALSE(Take(Message(NLMSG_DONE, Number<uint32_t>(0), 4)));
  EXPECT_FALSE(Take(LinkMessage(kRunning)));
}

TEST_F(NetlinkTest, AddressOfAnotherFamilyIsPassedOver) {
  KnowBridge();
  Take(Message(RTM_NEWADDR,
               AddressHeader(AF_PACKET, 24, 0) + Attribute(IFA_ADDRESS, Wire("C0 A8 4D 01"))));
  EXPECT_EQ(watch.link.addressCount, 0);
}

TEST_F(NetlinkTest, OtherMessagesArePassedOver) {
  KnowBridge();
  Take(Message(RTM_NEWROUTE, Bytes(12)));
  EXPECT_EQ(watch.index, kBridge);
  EXPECT_FALSE(watch.mustReread);
}

// As when the socket is lost: there is nothing to be read, now and later.
TEST_F(NetlinkTest, KernelThatTellsNothingIsAskedAgainLater) {
  KnowBridge();
  uint8_t buffer[kNetlinkDatagramMax];
  TakeNetlink(-1, watch, "br0", buffer);
  EXPECT_TRUE(watch.mustReread);
  EXPECT_FALSE(ReadLink(-1, watch, "br0", buffer));
  EXPECT_TRUE(watch.mustReread);
}

// As netlink sockets, those of a pair tell the size of what did not fit.
TEST_F(NetlinkTest, DatagramThatDoesNotFitIsReadAgainAsAWhole) {
  KnowBridge();
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, pair), 0);
  const Descriptor socket(pair[0]);
  const Descriptor kernel(pair[1]);
  const Bytes datagram(kNetlinkDatagramMax + 1);
  ASSERT_EQ(write(kernel.Get(), datagram.data(), datagram.size()),
            static_cast<ssize_t>(datagram.size()));
  uint8_t buffer[kNetlinkDatagramMax];
  TakeNetlink(socket.Get(), watch, "br0", buffer);
  EXPECT_TRUE(watch.mustReread);
}

TEST_F(NetlinkTest, InterruptedListIsReadAgain) {
  KnowBridge();
  Take(Message(RTM_NEWADDR, AddressHeader(AF_INET, 24, 0), 1, NLM_F_DUMP_INTR));
  EXPECT_TRUE(watch.mustReread);
}

// Each is read from a block of its exact size: a byte too far is seen by AddressSanitizer.
TEST_F(NetlinkTest, EveryCutDatagramIsSurvived) {
  const Bytes whole = LinkMessage(kRunning) + Ipv4Message(RTM_NEWADDR, "C0 A8 4D 01");
  for (size_t length = 0; length < whole.size(); ++length) {
    watch = {};
    Take(Bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length)));
    EXPECT_EQ(watch.link.addressCount, 0) << length;
  }
}

TEST_F(NetlinkTest, LengthsThatLieEndTheReading) {
  for (const uint32_t length : {0u, 15u, 17u, 0xFFFFFFFFu}) {
    Take(Number(length) + Number<uint16_t>(RTM_NEWLINK) + Bytes(10));
    EXPECT_EQ(watch.index, 0) << length;
  }
  for (const uint16_t length : {uint16_t{0}, uint16_t{3}, uint16_t{9}, uint16_t{0xFFFF}}) {
    Take(Message(RTM_NEWLINK, LinkHeader(kBridge, kRunning) + Number(length) + Number<uint16_t>(3) +
                                  Wire("'br0' 00")));
    EXPECT_EQ(watch.index, 0) << length;
  }
}

// The kernel

class KernelTest : public testing::Test {
 protected:
  KernelTest() : netlink(OpenNetlink()) {}

  void Follow() {
    TakeNetlink(netlink.Get(), watch, "br0", buffer);
    if (watch.mustReread) {
      EXPECT_TRUE(ReadLink(netlink.Get(), watch, "br0", buffer));
    }
  }

  const OwnNetwork network;
  uint8_t buffer[kNetlinkDatagramMax];
  const Descriptor netlink;
  LinkWatch watch = {};
};

TEST_F(KernelTest, LinkThatIsThereIsReadWhole) {
  AddBridge("br0");
  SetAddress("br0", "192.168.77.1");
  SetInterfaceUp("br0", true);
  const OtherHost host("br0");
  ASSERT_TRUE(ReadLink(netlink.Get(), watch, "br0", buffer));
  EXPECT_EQ(watch.index, static_cast<int32_t>(if_nametoindex("br0")));
  EXPECT_TRUE(watch.link.isUp);
  EXPECT_EQ(watch.link.mtu, 1500);
  ASSERT_GE(watch.link.addressCount, 1);
  EXPECT_EQ(Hex({watch.link.addresses[0].address.bytes, 4}), "C0 A8 4D 01");
  EXPECT_EQ(watch.link.addresses[0].prefixLength, 24);
}

TEST_F(KernelTest, LinkThatIsNotThereIsNoFailure) {
  watch.index = kBridge;
  EXPECT_TRUE(ReadLink(netlink.Get(), watch, "br0", buffer));
  EXPECT_EQ(watch.index, 0);
}

TEST_F(KernelTest, LinkThatComesGoesAndComesBackIsFollowed) {
  for (int i = 0; i < 2; ++i) {
    AddBridge("br0");
    SetAddress("br0", "192.168.77.1");
    Follow();
    EXPECT_EQ(watch.index, static_cast<int32_t>(if_nametoindex("br0")));
    EXPECT_EQ(watch.link.addressCount, 1);
    RemoveBridge("br0");
    Follow();
    EXPECT_EQ(watch.index, 0);
    EXPECT_EQ(watch.link.addressCount, 0);
  }
}

TEST_F(KernelTest, MoreThanTheSocketHoldsIsReadAgain) {
  AddBridge("br0");
  for (int i = 0; i < 2000; ++i) SetAddress("br0", i % 2 == 0 ? "10.0.0.1" : "10.0.0.2");
  // Taken in several turns.
  for (int i = 0; i < 100 && !watch.mustReread; ++i)
    TakeNetlink(netlink.Get(), watch, "br0", buffer);
  ASSERT_TRUE(watch.mustReread);
  Follow();
  ASSERT_EQ(watch.link.addressCount, 1);
  EXPECT_EQ(Hex({watch.link.addresses[0].address.bytes, 4}), "0A 00 00 02");
}

}  // namespace
