// The responder thread from its start to its stop: set-up, probing, answering, withdrawal.
// Probing and answering themselves are fake.
#include "mdns/responder.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "mdns/socket.h"
#include "records/registration.h"
#include "records/registry.h"
#include "tests/support/bytes.h"
#include "tests/support/fake_responder_threads.h"
#include "tests/support/fake_sender.h"
#include "tests/support/fake_socket.h"
#include "tests/support/fault.h"
#include "tests/support/output.h"

namespace {

using testing::ElementsAre;

// What happened, in its order.
std::mutex eventMutex;
std::vector<std::string> events;

void Note(const std::string& event) {
  const std::lock_guard lock(eventMutex);
  events.push_back(event);
}

// A stop is asked for at the nth sleep of a length; 0: never.
unsigned stopAtSleep = 0;
unsigned sleeps = 0;

// One run of the responder a process: it ends the registry.
class ResponderTest : public testing::Test {
 protected:
  ResponderTest() {
    monotonicSeconds = 1000;
    onSleep = [](unsigned seconds) {
      Note("sleep " + std::to_string(seconds));
      monotonicSeconds += seconds;
      if (++sleeps == stopAtSleep) bTerminate.Set(1);
    };
    onUsleep = [](unsigned) { Note("poll"); };
    onSendPacket = [] { Note("send"); };
    fakeSocketModule.updateHostIP = [this](uint32_t slot) -> uint32_t {
      Note("address " + std::to_string(slot));
      return hasAddress ? 1 : 0;
    };
    fakeSocketModule.setup = [this]() -> uint32_t {
      Note("setup");
      if (!canSetUp) return 0;
      responderState.interfaceAddress[0].Set(inet_addr("192.168.1.1"));
      responderState.connected[0].Set(1);
      multicastSocket.Set(17);
      return 1;
    };
    fakeSocketModule.close = [] {
      Note("close " + std::to_string(responderState.connected[0].Get()));
      multicastSocket.Set(-1);
    };
    onCheckName = [this](ProbeRecord& record) {
      Note(std::string("probe ") + record.name + " retry " + std::to_string(record.retry) +
           " socket " + std::to_string(record.socket) + " slot " + std::to_string(record.slot));
      if (conflicts > 0) {
        --conflicts;
        record.name[strlen(record.name)] = 'x';
        record.retry = 1;
      }
      if (stopWhileProbing) bTerminate.Set(1);
    };
    onAnswer = [this](const AnswerStartRecord& given) {
      while (GetBonjourInitStatus() == 0) sched_yield();
      Note("answer socket " + std::to_string(given.socket) + " slot " + std::to_string(given.slot));
      if (whileAnswering) whileAnswering();
      bTerminate.Set(1);
    };
    strcpy(start.deviceName, "router");
    start.probeRequest = 1;
  }

  void Run() {
    CapturedOutput output;
    EXPECT_EQ(BonjourServiceInit(&start), nullptr);
    out = output.Stdout();
    err = output.Stderr();
  }

  static std::string DeviceName() {
    char name[kDeviceNameSize] = {};
    return GetDeviceName(name, 64);
  }
  static long Count(const std::string& event) {
    const std::lock_guard lock(eventMutex);
    return std::count(events.begin(), events.end(), event);
  }

  ResponderStartRecord start{};
  bool hasAddress = true;
  bool canSetUp = true;
  int conflicts = 0;
  bool stopWhileProbing = false;
  std::function<void()> whileAnswering;
  std::string out;
  std::string err;
};

// The start

TEST_F(ResponderTest, SetsUpProbesAnswersAndCloses) {
  Run();
  EXPECT_EQ(out,
            "[Bonjour] default device name = router\n"
            "[Bonjour] Answer Name Start (192.168.1.1)\n");
  EXPECT_EQ(err, "");
  ASSERT_GE(events.size(), 2u);
  EXPECT_EQ(events[0], "setup");
  EXPECT_EQ(events[1], "probe router retry 0 socket 17 slot 0");
  EXPECT_EQ(Count("answer socket 17 slot 0"), 1);
  EXPECT_EQ(events.back(), "close 1");
  EXPECT_EQ(Count("setup"), 1);
  EXPECT_EQ(GetBonjourInitStatus(), 1u);
  EXPECT_EQ(DeviceName(), "router");
}

TEST_F(ResponderTest, FillsTheInterfaceTableAndTheDestination) {
  strcpy(responderState.interfaceName[0], "old");
  responderState.connected[1].Set(1);
  responderState.interfaceAddress[1].Set(inet_addr("10.0.0.1"));
  memset(&responderState.mdnsDestination, 0xEE, sizeof(responderState.mdnsDestination));
  SetDeviceName("old");
  fakeSocketModule.setup = []() -> uint32_t {
    Note("name at the setup: " + DeviceName());
    bTerminate.Set(1);
    return 0;
  };
  Run();
  EXPECT_EQ(Count("name at the setup: "), 1);
  EXPECT_STREQ(responderState.interfaceName[0], "br0");
  EXPECT_STREQ(responderState.interfaceName[1], "qxSkipDevName");
  EXPECT_EQ(responderState.connected[1].Get(), 0u);
  EXPECT_STREQ(GetInterfaceAddress(1).text, "");
  EXPECT_EQ(responderState.mdnsDestination.sin_family, AF_INET);
  EXPECT_EQ(ntohs(responderState.mdnsDestination.sin_port), 5353);
  EXPECT_STREQ(inet_ntoa(responderState.mdnsDestination.sin_addr), "224.0.0.251");
  EXPECT_THAT(responderState.mdnsDestination.sin_zero, testing::Each(0));
}

TEST_F(ResponderTest, StopBeforeTheStartOnlySetsTheNameAndEnds) {
  bTerminate.Set(1);
  Run();
  EXPECT_EQ(out, "[Bonjour] default device name = router\n");
  EXPECT_THAT(events, ElementsAre());
  EXPECT_EQ(GetBonjourInitStatus(), 0u);
  EXPECT_EQ(DeviceName(), "router");
  EXPECT_EQ(responderState.mdnsDestination.sin_port, 0);
  EXPECT_FALSE(RegistryLock().IsOpen());
}

// Probing

TEST_F(ResponderTest, WithoutAProbeRequestTheNameIsNotProbed) {
  start.probeRequest = 0;
  Run();
  EXPECT_EQ(out, "[Bonjour] Answer Name Start (192.168.1.1)\n");
  EXPECT_EQ(events[0], "setup");
  EXPECT_EQ(Count("probe router retry 0 socket 17 slot 0"), 0);
  EXPECT_EQ(DeviceName(), "router");
}

TEST_F(ResponderTest, ProbesAgainUntilAPassWithoutConflict) {
  conflicts = 2;
  Run();
  EXPECT_THAT(std::vector<std::string>(events.begin(), events.begin() + 6),
              ElementsAre("setup", "probe router retry 0 socket 17 slot 0", "sleep 1",
                          "probe routerx retry 0 socket 17 slot 0", "sleep 1",
                          "probe routerxx retry 0 socket 17 slot 0"));
  EXPECT_EQ(out,
            "[Bonjour] default device name = routerxx\n"
            "[Bonjour] Answer Name Start (192.168.1.1)\n");
  EXPECT_EQ(DeviceName(), "routerxx");
}

TEST_F(ResponderTest, NameIsCutAt64Characters) {
  memset(start.deviceName, 'n', sizeof(start.deviceName));
  Run();
  EXPECT_EQ(DeviceName(), std::string(64, 'n'));
  EXPECT_EQ(events[1], "probe " + std::string(64, 'n') + " retry 0 socket 17 slot 0");
}

TEST_F(ResponderTest, StopWhileProbingKeepsTheNameReachedSoFar) {
  conflicts = 5;
  stopWhileProbing = true;
  Run();
  EXPECT_EQ(DeviceName(), "routerx");
  EXPECT_EQ(Count("probe routerx retry 0 socket 17 slot 0"), 0);
}

TEST_F(ResponderTest, WithoutAProbingThreadTheNameIsTaken) {
  threadFault.FailCall(1);
  Run();
  EXPECT_TRUE(threadFault.HasStruck());
  EXPECT_EQ(err, "[Bonjour] pthread_create: Resource temporarily unavailable\n");
  EXPECT_EQ(out,
            "[Bonjour] default device name = router\n"
            "[Bonjour] Answer Name Start (192.168.1.1)\n");
  EXPECT_EQ(Count("probe router retry 0 socket 17 slot 0"), 0);
  EXPECT_EQ(GetBonjourInitStatus(), 1u);
}

// The set-up of the socket, and an interface that comes late

TEST_F(ResponderTest, SetupIsTriedForMoreThanFiveSecondsThenTheInterfaceIsCheckedEveryTenSeconds) {
  canSetUp = false;
  hasAddress = false;
  stopAtSleep = 8;
  Run();
  EXPECT_EQ(out,
            "MDNS_SocketSetup() MDNS_SELF_BIND1 error\n"
            "[Bonjour] default device name = router\n");
  EXPECT_THAT(events, ElementsAre("setup", "sleep 1", "setup", "sleep 1", "setup", "sleep 1",
                                  "setup", "sleep 1", "setup", "sleep 1", "setup", "sleep 1",
                                  "setup", "address 0", "sleep 10", "address 0", "sleep 10"));
  EXPECT_EQ(GetBonjourInitStatus(), 0u);
}

TEST_F(ResponderTest, StopDuringTheSetupLogsNoFailure) {
  canSetUp = false;
  stopAtSleep = 2;
  Run();
  EXPECT_EQ(out, "[Bonjour] default device name = router\n");
  EXPECT_THAT(events, ElementsAre("setup", "sleep 1", "setup", "sleep 1"));
}

TEST_F(ResponderTest, InterfaceThatComesLateIsUsedWithoutProbing) {
  canSetUp = false;
  hasAddress = false;
  onSleep = [](unsigned seconds) {
    Note("sleep " + std::to_string(seconds));
    monotonicSeconds += seconds;
    ++sleeps;
  };
  fakeSocketModule.updateHostIP = [this](uint32_t) -> uint32_t {
    if (sleeps > 7) canSetUp = true;
    Note("address");
    return sleeps > 6 ? 1 : 0;
  };
  Run();
  EXPECT_EQ(out,
            "MDNS_SocketSetup() MDNS_SELF_BIND1 error\n"
            "[Bonjour] default device name = router\n"
            "[Bonjour] Answer Name Start (192.168.1.1)\n");
  // An address without a usable socket is not enough.
  EXPECT_THAT(std::vector<std::string>(events.begin() + 13, events.end()),
              ElementsAre("address", "sleep 10", "address", "setup", "sleep 10", "address", "setup",
                          "answer socket 17 slot 0", "close 1"));
  EXPECT_EQ(GetBonjourInitStatus(), 1u);
}

// Answering

TEST_F(ResponderTest, WithoutAnAnsweringThreadTheStopIsWaitedFor) {
  threadFault.FailCall(2);
  stopAtSleep = 3;
  Run();
  EXPECT_TRUE(threadFault.HasStruck());
  EXPECT_EQ(err, "[Bonjour] pthread_create error: Resource temporarily unavailable\n");
  EXPECT_EQ(out,
            "[Bonjour] default device name = router\n"
            "[Bonjour] Answer Name Start (192.168.1.1)\n");
  EXPECT_EQ(Count("sleep 1"), 3);
  EXPECT_EQ(GetBonjourInitStatus(), 1u);
  EXPECT_EQ(events.back(), "close 1");
}

// The stop: goodbyes, then the close

TEST_F(ResponderTest, StopWithdrawsServicesInTheOrderOfRegistrationBeforeTheClose) {
  whileAnswering = [] {
    RegisterOneService("A", "_ipp._tcp", ".local", "a", 1, 631);
    RegisterOneService("B", "_pdl-datastream._tcp", ".local", nullptr, 0, 9100);
    RegisterOneService("C", "_ipp._tcp", ".local", "c", 1, 631);
    ForgetSentPackets();
    const std::lock_guard lock(eventMutex);
    events.clear();
  };
  Run();
  const std::vector<SentPacket> sent = SentPackets();
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(sent[0].bytes[7], 2);
  EXPECT_NE(Hex(sent[0].bytes).find(WireHex("01 'A' 04 '_ipp'")), std::string::npos);
  EXPECT_EQ(sent[1].bytes[7], 1);
  EXPECT_NE(Hex(sent[1].bytes).find(WireHex("01 'B' 0F '_pdl-'")), std::string::npos);
  EXPECT_NE(Hex(sent[2].bytes).find(WireHex("01 'C' 04 '_ipp'")), std::string::npos);
  std::vector<std::string> end(events.end() - 4, events.end());
  EXPECT_THAT(end, ElementsAre("send", "send", "send", "close 1"));
  EXPECT_FALSE(RegistryLock().IsOpen());
}

TEST_F(ResponderTest, ServicesAreWithdrawnWithoutAnInterfaceToo) {
  RegisterOneService("A", "_ipp._tcp", ".local", "a", 1, 631);
  bTerminate.Set(1);
  Run();
  EXPECT_EQ(SentPackets().size(), 0u);
  EXPECT_THAT(events, ElementsAre());
  EXPECT_FALSE(RegistryLock().IsOpen());
}

// Lets the `count`th poll from here on find that nobody sends any more.
void StopSendingAtPoll(int count) {
  static std::atomic<int> left;
  left = count;
  EXPECT_TRUE(fakeSenders.Enter());
  onUsleep = [](unsigned microseconds) {
    Note("poll " + std::to_string(microseconds));
    if (--left == 0) fakeSenders.Leave();
  };
}

TEST_F(ResponderTest, GoodbyesWaitUntilEarlierPacketsAreSent) {
  whileAnswering = [] {
    RegisterOneService("A", "_ipp._tcp", ".local", "a", 1, 631);
    const std::lock_guard lock(eventMutex);
    events.clear();
    StopSendingAtPoll(3);
  };
  Run();
  EXPECT_THAT(events, ElementsAre("poll 10000", "poll 10000", "poll 10000", "send", "close 1"));
}

TEST_F(ResponderTest, SocketIsClosedOnceTheGoodbyesAreSent) {
  whileAnswering = [] {
    RegisterOneService("A", "_ipp._tcp", ".local", "a", 1, 631);
    const std::lock_guard lock(eventMutex);
    events.clear();
    onSendPacket = [] {
      Note("send");
      StopSendingAtPoll(2);
    };
  };
  Run();
  EXPECT_THAT(events, ElementsAre("send", "poll 10000", "poll 10000", "close 1"));
}

TEST_F(ResponderTest, GoodbyesWaitForARegistrationThatIsUnderWay) {
  static std::atomic<bool> isHeld;
  static std::atomic<int> polls;
  static std::thread registering;
  isHeld = true;
  polls = 0;
  whileAnswering = [] {
    onSendPacket = [] {
      Note("announce");
      while (isHeld) sched_yield();
      onSendPacket = [] { Note("send"); };
    };
    registering = std::thread([] { RegisterOneService("A", "_ipp._tcp", ".local", "a", 1, 631); });
    while (Count("announce") == 0) sched_yield();
    const std::lock_guard lock(eventMutex);
    events.clear();
  };
  onUsleep = [](unsigned) {
    if (++polls == 3) {
      Note("third poll");
      isHeld = false;
      registering.join();
    }
  };
  Run();
  // The announcement, then the goodbye.
  EXPECT_THAT(events, ElementsAre("third poll", "send", "send", "close 1"));
  EXPECT_FALSE(RegistryLock().IsOpen());
}

TEST_F(ResponderTest, NothingIsRegisteredAfterAnsweringHasEnded) {
  whileAnswering = [] {
    RegisterOneService("A", "_ipp._tcp", ".local", "a", 1, 631);
    const std::lock_guard lock(eventMutex);
    events.clear();
    StopSendingAtPoll(1);
    onUsleep = [](unsigned) {
      Note("refused " +
           std::to_string(1 - RegisterOneService("B", "_ipp._tcp", ".local", "b", 1, 631)));
      fakeSenders.Leave();
    };
  };
  Run();
  EXPECT_THAT(events, ElementsAre("refused 1", "send", "close 1"));
}

// Somebody tries to send after each look at who is sending, the last one too, and hangs.
TEST_F(ResponderTest, NobodySendsOnTheSocketThatIsClosed) {
  fakeSocketModule.close = [] { Note(fakeSenders.IsEmpty() ? "nobody sends" : "somebody sends"); };
  whileAnswering = [] {
    RegisterOneService("A", "_ipp._tcp", ".local", "a", 1, 631);
    onSendPacket = [] { onLookAtSenders = [] { static_cast<void>(fakeSenders.Enter()); }; };
  };
  Run();
  EXPECT_EQ(events.back(), "nobody sends");
}

TEST_F(ResponderTest, ServiceThatCannotBeWithdrawnIsTriedAgainAfterAPause) {
  whileAnswering = [] {
    RegisterOneService("A", "_ipp._tcp", ".local", "a", 1, 631);
    ForgetSentPackets();
    const std::lock_guard lock(eventMutex);
    events.clear();
    callocFault.FailCall(1);
  };
  onUsleep = [](unsigned microseconds) {
    Note("pause " + std::to_string(microseconds));
    callocFault.FailCall(events.size() < 3 ? 1 : 0);
  };
  Run();
  EXPECT_THAT(events,
              ElementsAre("pause 100000", "pause 100000", "pause 100000", "send", "close 1"));
  EXPECT_EQ(SentPackets().size(), 1u);
}

TEST_F(ResponderTest, SenderThatHangsIsWaitedForThreeSecondsInAll) {
  EXPECT_TRUE(fakeSenders.Enter());
  Run();
  // Twice 1.5 seconds: before the goodbyes and after them.
  EXPECT_EQ(Count("poll"), 300);
  EXPECT_EQ(events.back(), "close 1");
}

}  // namespace
