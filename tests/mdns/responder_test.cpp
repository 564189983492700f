// The responder thread from its start to its stop: set-up, probing, answering, withdrawal.
// Probing and answering themselves are fake.
#include "mdns/responder.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "mdns/answer.h"
#include "mdns/probe.h"
#include "records/registration.h"
#include "records/registry.h"
#include "tests/support/bytes.h"
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

long Count(const std::string& event) {
  const std::lock_guard lock(eventMutex);
  return std::count(events.begin(), events.end(), event);
}

uint32_t Register(const char* name) {
  return RegisterOneService(name, "_ipp._tcp", ".local", "a", 1, 631);
}

// Registers a service and forgets all that happened before.
void RegisterFirst() {
  Register("A");
  ForgetSentPackets();
  const std::lock_guard lock(eventMutex);
  events.clear();
}

// A stop is asked for at the nth sleep; 0: never.
unsigned stopAtSleep = 0;
unsigned sleeps = 0;
// So many passes of probing meet a conflict.
int conflicts = 0;
std::function<void()> whileProbing;
std::function<void()> whileAnswering;

constexpr char kProbe[] = "probe router retry 0 socket 17 slot 0";
constexpr char kNamed[] = "[Bonjour] default device name = router\n";
constexpr char kAnswering[] = "[Bonjour] Answer Name Start (192.168.1.1)\n";
constexpr char kNoSocket[] = "MDNS_SocketSetup() MDNS_SELF_BIND1 error\n";

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
    onUsleep = [](unsigned microseconds) { Note("poll " + std::to_string(microseconds)); };
    onSendPacket = [] { Note("send"); };
    fakeSocketModule.updateHostIP = [this](uint32_t slot) -> uint32_t {
      Note("address " + std::to_string(slot));
      return sleeps >= sleepsToAddress ? 1 : 0;
    };
    fakeSocketModule.setup = [this]() -> uint32_t {
      Note("setup");
      if (sleeps < sleepsToSocket) return 0;
      responderState.interfaceAddress[0].Set(inet_addr("192.168.1.1"));
      responderState.connected[0].Set(1);
      multicastSocket.Set(17);
      return 1;
    };
    fakeSocketModule.close = [] { Note("close"); };
    strcpy(start.deviceName, "router");
    start.probeRequest = 1;
  }

  // Returns the log.
  std::string Run() {
    CapturedOutput output;
    EXPECT_EQ(BonjourServiceInit(&start), nullptr);
    err = output.Stderr();
    return output.Stdout();
  }

  static std::string DeviceName() {
    char name[kDeviceNameSize] = {};
    return GetDeviceName(name, 64);
  }

  ResponderStartRecord start{};
  unsigned sleepsToAddress = 0;  // an address is there after so many sleeps
  unsigned sleepsToSocket = 0;   // and the socket can be set up
  std::string err;
};

TEST_F(ResponderTest, SetsUpProbesAnswersAndCloses) {
  EXPECT_EQ(Run(), std::string(kNamed) + kAnswering);
  EXPECT_EQ(err, "");
  ASSERT_GE(events.size(), 2u);
  EXPECT_EQ(events[0], "setup");
  EXPECT_EQ(events[1], kProbe);
  EXPECT_EQ(Count("answer socket 17 slot 0"), 1);
  EXPECT_EQ(events.back(), "close");
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
    EXPECT_EQ(DeviceName(), "");
    bTerminate.Set(1);
    return 0;
  };
  Run();
  EXPECT_STREQ(responderState.interfaceName[0], "br0");
  EXPECT_STREQ(responderState.interfaceName[1], "qxSkipDevName");
  EXPECT_EQ(responderState.connected[1].Get(), 0u);
  EXPECT_STREQ(GetInterfaceAddress(1).text, "");
  EXPECT_EQ(responderState.mdnsDestination.sin_family, AF_INET);
  EXPECT_EQ(ntohs(responderState.mdnsDestination.sin_port), 5353);
  EXPECT_STREQ(inet_ntoa(responderState.mdnsDestination.sin_addr), "224.0.0.251");
  EXPECT_THAT(responderState.mdnsDestination.sin_zero, testing::Each(0));
}

TEST_F(ResponderTest, StopBeforeTheStartOnlySetsTheNameAndWithdrawsServices) {
  Register("A");
  bTerminate.Set(1);
  EXPECT_EQ(Run(), kNamed);
  EXPECT_THAT(events, ElementsAre());
  EXPECT_EQ(GetBonjourInitStatus(), 0u);
  EXPECT_EQ(DeviceName(), "router");
  EXPECT_EQ(responderState.mdnsDestination.sin_port, 0);
  EXPECT_FALSE(RegistryLock().IsOpen());
}

TEST_F(ResponderTest, WithoutAProbeRequestTheNameIsNotProbed) {
  start.probeRequest = 0;
  EXPECT_EQ(Run(), kAnswering);
  EXPECT_EQ(events[0], "setup");
  EXPECT_EQ(Count(kProbe), 0);
  EXPECT_EQ(DeviceName(), "router");
}

TEST_F(ResponderTest, ProbesAgainUntilAPassWithoutConflict) {
  conflicts = 1;
  EXPECT_EQ(Run(), std::string("[Bonjour] default device name = routerx\n") + kAnswering);
  EXPECT_THAT(std::vector<std::string>(events.begin(), events.begin() + 4),
              ElementsAre("setup", kProbe, "sleep 1", "probe routerx retry 0 socket 17 slot 0"));
  EXPECT_EQ(DeviceName(), "routerx");
}

TEST_F(ResponderTest, StopWhileProbingKeepsTheNameReachedSoFar) {
  conflicts = 5;
  whileProbing = [] { bTerminate.Set(1); };
  Run();
  EXPECT_EQ(DeviceName(), "routerx");
  EXPECT_EQ(Count("probe routerx retry 0 socket 17 slot 0"), 0);
}

TEST_F(ResponderTest, WithoutAProbingThreadTheNameIsTaken) {
  threadFault.FailCall(1);
  EXPECT_EQ(Run(), std::string(kNamed) + kAnswering);
  EXPECT_TRUE(threadFault.HasStruck());
  EXPECT_EQ(err, "[Bonjour] pthread_create: Resource temporarily unavailable\n");
  EXPECT_EQ(Count(kProbe), 0);
  EXPECT_EQ(GetBonjourInitStatus(), 1u);
}

// The set-up of the socket, and an interface that comes late

TEST_F(ResponderTest, SetupIsTriedForMoreThanFiveSecondsThenTheInterfaceEveryTenSeconds) {
  sleepsToSocket = 8;
  sleepsToAddress = 7;
  // It is used without probing; an address without a usable socket is not enough.
  EXPECT_EQ(Run(), std::string(kNoSocket) + kNamed + kAnswering);
  EXPECT_THAT(events,
              ElementsAre("setup", "sleep 1", "setup", "sleep 1", "setup", "sleep 1", "setup",
                          "sleep 1", "setup", "sleep 1", "setup", "sleep 1", "setup", "address 0",
                          "sleep 10", "address 0", "setup", "sleep 10", "address 0", "setup",
                          "answer socket 17 slot 0", "close"));
  EXPECT_EQ(GetBonjourInitStatus(), 1u);
}

TEST_F(ResponderTest, StopIsSeenWhileTheInterfaceIsWaitedFor) {
  sleepsToAddress = sleepsToSocket = 100;
  stopAtSleep = 7;
  EXPECT_EQ(Run(), std::string(kNoSocket) + kNamed);
  EXPECT_EQ(Count("sleep 10"), 1);
  EXPECT_EQ(GetBonjourInitStatus(), 0u);
}

TEST_F(ResponderTest, StopDuringTheSetupLogsNoFailure) {
  sleepsToSocket = 100;
  stopAtSleep = 2;
  EXPECT_EQ(Run(), kNamed);
  EXPECT_THAT(events, ElementsAre("setup", "sleep 1", "setup", "sleep 1"));
}

TEST_F(ResponderTest, WithoutAnAnsweringThreadTheStopIsWaitedFor) {
  threadFault.FailCall(2);
  stopAtSleep = 3;
  EXPECT_EQ(Run(), std::string(kNamed) + kAnswering);
  EXPECT_TRUE(threadFault.HasStruck());
  EXPECT_EQ(err, "[Bonjour] pthread_create error: Resource temporarily unavailable\n");
  EXPECT_EQ(Count("sleep 1"), 3);
  EXPECT_EQ(GetBonjourInitStatus(), 1u);
  EXPECT_EQ(events.back(), "close");
}

// The stop: goodbyes, then the close

TEST_F(ResponderTest, StopWithdrawsServicesInTheOrderOfRegistrationBeforeTheClose) {
  whileAnswering = [] {
    RegisterFirst();
    Register("B");
    ForgetSentPackets();
  };
  Run();
  const std::vector<SentPacket> sent = SentPackets();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_NE(Hex(sent[0].bytes).find(WireHex("01 'A' 04 '_ipp'")), std::string::npos);
  EXPECT_NE(Hex(sent[1].bytes).find(WireHex("01 'B' 04 '_ipp'")), std::string::npos);
  EXPECT_FALSE(RegistryLock().IsOpen());
}

TEST_F(ResponderTest, GoodbyesWaitForEarlierPacketsAndTheCloseForTheGoodbyes) {
  whileAnswering = [] {
    RegisterFirst();
    EXPECT_TRUE(fakeSenders.Enter());
    onSendPacket = [] {
      Note("send");
      EXPECT_TRUE(fakeSenders.Enter());
    };
    // Each packet has been sent by the second poll.
    onUsleep = [](unsigned microseconds) {
      Note("poll " + std::to_string(microseconds));
      if (Count("poll 10000") % 2 == 0) fakeSenders.Leave();
    };
  };
  Run();
  EXPECT_THAT(events,
              ElementsAre("poll 10000", "poll 10000", "send", "poll 10000", "poll 10000", "close"));
}

// The responder runs while this registration hands over its first packet, and so waits 1.5 seconds
// in vain; a sender takes ten polls more.
TEST_F(ResponderTest, GoodbyesWaitForARegistrationUnderWayAndNoneIsBegunAnyMore) {
  onUsleep = [](unsigned) {
    Note("registered " + std::to_string(Register("B")));
    if (Count("registered 0") == 160) fakeSenders.Leave();
  };
  onSendPacket = [this, isFirst = true]() mutable {
    if (std::exchange(isFirst, false)) {
      Run();
    } else {
      Note("send");
    }
  };
  EXPECT_TRUE(fakeSenders.Enter());
  responderState.connected[0].Set(1);
  Register("A");
  EXPECT_EQ(Count("registered 0"), 160);
  const auto last = std::find(events.begin(), events.end(), "close");
  EXPECT_THAT(std::vector<std::string>(last - 2, last + 1),
              ElementsAre("registered 0", "send", "close"));
}

// Whenever somebody has sent, the next one tries to.
TEST_F(ResponderTest, NobodySendsOnTheSocketThatIsClosed) {
  fakeSocketModule.close = [] { Note(fakeSenders.IsEmpty() ? "nobody sends" : "somebody sends"); };
  whileAnswering = [] {
    RegisterFirst();
    onSendPacket = [] {
      EXPECT_TRUE(fakeSenders.Enter());
      onUsleep = [](unsigned) {
        fakeSenders.Leave();
        static_cast<void>(fakeSenders.Enter());
      };
    };
  };
  Run();
  EXPECT_EQ(events.back(), "nobody sends");
}

TEST_F(ResponderTest, ServiceThatCannotBeWithdrawnIsTriedAgainAfterAPause) {
  whileAnswering = [] {
    RegisterFirst();
    callocFault.FailCall(1);
  };
  onUsleep = [](unsigned microseconds) {
    Note("pause " + std::to_string(microseconds));
    callocFault.FailCall(events.size() < 3 ? 1 : 0);
  };
  Run();
  EXPECT_THAT(events, ElementsAre("pause 100000", "pause 100000", "pause 100000", "send", "close"));
}

TEST_F(ResponderTest, SenderThatHangsIsWaitedForThreeSecondsInAll) {
  EXPECT_TRUE(fakeSenders.Enter());
  Run();
  // Twice 1.5 seconds: before the goodbyes and after them.
  EXPECT_EQ(Count("poll 10000"), 300);
  EXPECT_EQ(events.back(), "close");
}

}  // namespace

// In place of the threads that the responder starts.

void* MDNS_CheckName(void* argument) {
  ProbeRecord& record = *static_cast<ProbeRecord*>(argument);
  Note(std::string("probe ") + record.name + " retry " + std::to_string(record.retry) + " socket " +
       std::to_string(record.socket) + " slot " + std::to_string(record.slot));
  if (conflicts > 0) {
    --conflicts;
    record.name[strlen(record.name)] = 'x';
    record.retry = 1;
  }
  if (whileProbing) whileProbing();
  return nullptr;
}

void* MDNS_Answer(void* argument) {
  const AnswerStartRecord& given = *static_cast<AnswerStartRecord*>(argument);
  while (GetBonjourInitStatus() == 0) sched_yield();
  Note("answer socket " + std::to_string(given.socket) + " slot " + std::to_string(given.slot));
  if (whileAnswering) whileAnswering();
  bTerminate.Set(1);
  return nullptr;
}
