// RunDaemon's own decisions. Its threads are only noted, never run, and its pauses take no time.
#include "app/daemon.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "base/thread.h"
#include "printer/monitor.h"
#include "tests/support/fake_responder.h"
#include "tests/support/fault.h"
#include "tests/support/network.h"
#include "tests/support/output.h"

namespace {

using testing::ElementsAre;

// What RunDaemon did, in order, and what else happens at such a moment.
std::vector<std::string> events;
std::map<std::string, std::function<void()>> at;

void Note(const std::string& event) {
  events.push_back(event);
  if (const auto action = at.find(event); action != at.end()) action->second();
}

ResponderStartRecord start;
uint8_t macAtStart[6];
sigset_t blockedInWait;

class Daemon : public testing::Test {
 protected:
  Daemon() {
    AddBridge("br0");
    SetMac("br0", {0x00, 0x11, 0x22, 0xAA, 0xBB, 0xCC});
    fakeResponder.initStatus = 1;
    fakeResponder.endReceive = [] { Note("end receive"); };
    onSleep = [](unsigned seconds) { Note("pause " + std::to_string(seconds)); };
    at = {{"wait", [] { bTerminate.Set(1); }}};
    events.clear();
    bTerminate.Set(0);
  }
  ~Daemon() override { onSleep = nullptr; }

  Log Run(std::string model = "") {
    char program[] = "bonjour";
    char* const arguments[] = {program, model.data(), nullptr};
    return LogOf([&] { EXPECT_EQ(RunDaemon(model.empty() ? 1 : 2, arguments), 0); });
  }

  const OwnNetwork network;
};

// The build date reads like "Nov 21 2026" or "Nov  1 2026".
void ExpectBanner(const std::string& line, const std::string& model) {
  EXPECT_THAT(line,
              testing::MatchesRegex("\\[QX\\] " + model +
                                    " Bonjour v2\\.1 Start \\([A-Z][a-z][a-z] [ 0-9][0-9] [0-9]{4} "
                                    "[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\)\n"));
}

TEST_F(Daemon, StartsResponderThenMonitorWaitsForAStopAndJoinsThemInThatOrder) {
  // A signal that is no stop is waited on.
  at["wait"] = [] { bTerminate.Set(std::count(events.begin(), events.end(), "wait") == 3); };
  const Log log = Run();
  EXPECT_THAT(events, ElementsAre("start responder", "start monitor", "wait", "wait", "wait",
                                  "end receive", "join responder", "join monitor"));
  EXPECT_EQ(log.err, "");
}

TEST_F(Daemon, HandsTheNameOfTheModelAskedForAndTheProbeRequestToTheResponder) {
  const Log log = Run("T5100b3");
  ExpectBanner(log.out, "T5100b3");
  const std::string name = "T5100b3_00-11-22-AA-BB-CC";
  EXPECT_EQ(std::string(start.deviceName, 65), name + std::string(65 - name.size(), '\0'));
  EXPECT_EQ(start.probeRequest, 1u);
  EXPECT_EQ(memcmp(macAtStart, "\x00\x11\x22\xAA\xBB\xCC", 6), 0);
}

TEST_F(Daemon, ForgetsAnEarlierAddressWhenTheBridgeIsMissing) {
  RemoveBridge("br0");
  memset(hw_addr, 0x77, 6);
  EXPECT_EQ(Run().err, "[Bonjour] ioctl HWADDR error: No such device\n");
  EXPECT_STREQ(start.deviceName, "T5140_00-00-00-00-00-00");
  EXPECT_EQ(memcmp(macAtStart, "\0\0\0\0\0\0", 6), 0);
}

// Standard descriptors

TEST_F(Daemon, ClosedStandardDescriptorsAreOpenBehindAnOpenOneAndWithoutANullDevice) {
  onOpen = [](const std::string& path, int flags) {
    return path == "/dev/null" ? -1 : openat(AT_FDCWD, path.c_str(), flags);
  };
  at["start responder"] = [] {
    _exit(fcntl(0, F_GETFD) >= 0 && fcntl(1, F_GETFD) >= 0 && fcntl(2, F_GETFD) >= 0 ? 0 : 2);
  };
  for (const int first : {0, 1}) {
    EXPECT_EXIT(
        {
          for (int descriptor = first; descriptor <= 2; ++descriptor) close(descriptor);
          RunDaemon(1, nullptr);
        },
        testing::ExitedWithCode(0), "");
  }
  onOpen = nullptr;
}

// Signals

TEST_F(Daemon, StopSignalsSetTheFlagFromTheStartAlsoIfTheParentBlockedThem) {
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &stop, nullptr), 0);
  std::vector<uint32_t> flags;
  at["start responder"] = [&] {
    for (const int signalNumber : {SIGINT, SIGTERM}) {
      bTerminate.Set(0);
      raise(signalNumber);
      flags.push_back(bTerminate.Get());
    }
  };
  Run();
  EXPECT_THAT(flags, ElementsAre(1, 1));
}

TEST_F(Daemon, StopSignalsAreUnblockedOnlyDuringTheWait) {
  sigset_t around;
  at["wait"] = [&] {
    pthread_sigmask(SIG_BLOCK, nullptr, &around);
    bTerminate.Set(1);
  };
  Run();
  for (const int signalNumber : {SIGINT, SIGTERM}) {
    EXPECT_EQ(sigismember(&around, signalNumber), 1);
    EXPECT_EQ(sigismember(&blockedInWait, signalNumber), 0);
  }
  bTerminate.Set(0);
  raise(SIGTERM);
  EXPECT_EQ(bTerminate.Get(), 1u);
}

// The wait for the responder

TEST_F(Daemon, PollsOnceASecondUntilTheResponderIsUpAlsoAfterAStop) {
  fakeResponder.initStatus = 0;
  at["pause 1"] = [] {
    if (events.size() == 2) raise(SIGTERM);
    if (events.size() == 4) fakeResponder.initStatus = 1;
  };
  const Log log = Run();
  // There is nothing to wait for any more.
  EXPECT_THAT(events,
              ElementsAre("start responder", "pause 1", "pause 1", "pause 1", "start monitor",
                          "end receive", "join responder", "join monitor"));
  ExpectBanner(log.out, "T5140");
}

TEST_F(Daemon, UnknownResponderStatusStartsNoMonitor) {
  fakeResponder.initStatus = 0;
  at["pause 1"] = [] { fakeResponder.initStatus = 2; };
  const Log log = Run();
  EXPECT_THAT(events, ElementsAre("start responder", "pause 1", "wait", "end receive",
                                  "join responder", "join none"));
  EXPECT_EQ(log.err, "");
  ExpectBanner(log.out, "T5140");
}

}  // namespace

// In place of base/thread: the handle says which of the two threads it is.
int StartThread(JoinableThread& thread, void* (*body)(void*), void* argument) {
  const bool isMonitor = body == CheckUsbDevice;
  if (isMonitor) {
    EXPECT_EQ(argument, nullptr);
  } else {
    start = *static_cast<ResponderStartRecord*>(argument);
    memcpy(macAtStart, hw_addr, 6);
  }
  Note(isMonitor ? "start monitor" : "start responder");
  thread.handle = isMonitor;
  thread.running = true;
  return 0;
}

void JoinThread(JoinableThread& thread) {
  Note(thread.running ? thread.handle == 1 ? "join monitor" : "join responder" : "join none");
}

extern "C" int sigsuspend(const sigset_t* blocked) {
  blockedInWait = *blocked;
  Note("wait");
  errno = EINTR;
  return -1;
}
