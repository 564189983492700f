// RunDaemon's own decisions. Its threads are only noted, never run, and its pauses take no time.
#include "app/daemon.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "base/responder.h"
#include "printer/monitor.h"
#include "tests/support/command_line.h"
#include "tests/support/fake_responder.h"
#include "tests/support/fake_sleep.h"
#include "tests/support/fake_stop.h"
#include "tests/support/fake_thread.h"
#include "tests/support/log_capture.h"
#include "tests/support/own_namespace.h"

namespace {

constexpr char kNoThread[] = "[Bonjour] pthread_create error: Resource temporarily unavailable\n";

class Daemon : public testing::Test {
 protected:
  void SetUp() override {
    fakeThread = {};
    fakeStop = {};
    bTerminate.Set(0);
    fakeResponder = {};
    ASSERT_TRUE(EnterOwnNetwork()) << strerror(errno);
    ASSERT_TRUE(AddBridge({0x00, 0x11, 0x22, 0xAA, 0xBB, 0xCC})) << strerror(errno);
    fakeThread.onStart = [this](ThreadBody body, void* argument) {
      if (body != BonjourServiceInit) {
        monitorArgument = argument;
        return;
      }
      start = *static_cast<ResponderStartRecord*>(argument);
      macAtStart.assign(hw_addr, hw_addr + 6);
      if (isUpAtOnce) fakeResponder.initStatus = 1;
    };
  }

  Log Run(const std::vector<std::string>& arguments = {}) {
    const CommandLine line(arguments);
    return LogOf([&] { status = RunDaemon(line.Count(), line.Values()); });
  }

  bool isUpAtOnce = true;
  int status = -1;
  ResponderStartRecord start = {};
  std::vector<uint8_t> macAtStart;
  void* monitorArgument = this;
};

// The build date reads like "Nov 21 2026" or "Nov  1 2026".
void ExpectBanner(const std::string& line, const std::string& model) {
  EXPECT_THAT(line,
              testing::MatchesRegex("\\[QX\\] " + model +
                                    " Bonjour v2\\.1 Start \\([A-Z][a-z][a-z] [ 0-9][0-9] [0-9]{4} "
                                    "[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\)\n"));
}

// The start

TEST_F(Daemon, StartsResponderThenMonitorAndJoinsThemInThatOrder) {
  const Log log = Run();
  EXPECT_EQ(status, 0);
  EXPECT_EQ(fakeThread.started, (std::vector<ThreadBody>{BonjourServiceInit, CheckUsbDevice}));
  EXPECT_EQ(fakeThread.joined, (std::vector<ThreadBody>{BonjourServiceInit, CheckUsbDevice}));
  EXPECT_EQ(monitorArgument, nullptr);
  EXPECT_EQ(log.err, "");
  ExpectBanner(log.out, "T5140");
}

TEST_F(Daemon, HandsNameAndProbeRequestToTheResponder) {
  Run();
  EXPECT_STREQ(start.deviceName, "T5140_00-11-22-AA-BB-CC");
  EXPECT_EQ(start.probeRequest, 1u);
  EXPECT_EQ(macAtStart, (std::vector<uint8_t>{0x00, 0x11, 0x22, 0xAA, 0xBB, 0xCC}));
}

TEST_F(Daemon, TakesTheModelFromItsOneArgument) {
  const Log log = Run({"T5100b3"});
  EXPECT_STREQ(start.deviceName, "T5100b3_00-11-22-AA-BB-CC");
  ExpectBanner(log.out, "T5100b3");
}

TEST_F(Daemon, AnyOtherArgumentMeansTheDefaultModel) {
  const Log log = Run({"t5100b3"});
  EXPECT_STREQ(start.deviceName, "T5140_00-11-22-AA-BB-CC");
  ExpectBanner(log.out, "T5140");
}

TEST_F(Daemon, NameIsFilledWithZerosToTheEndOfItsField) {
  Run();
  EXPECT_EQ(std::string(start.deviceName + 23, 42), std::string(42, '\0'));
}

TEST_F(Daemon, ForgetsAnEarlierAddressWhenTheBridgeIsMissing) {
  ASSERT_TRUE(EnterOwnNetwork()) << strerror(errno);
  memset(hw_addr, 0x77, 6);
  const Log log = Run();
  EXPECT_EQ(log.err, "[Bonjour] ioctl HWADDR error: No such device\n");
  EXPECT_STREQ(start.deviceName, "T5140_00-00-00-00-00-00");
  EXPECT_EQ(macAtStart, std::vector<uint8_t>(6, 0));
  EXPECT_EQ(status, 0);
}

// Standard descriptors and signals

TEST_F(Daemon, ClosedStandardDescriptorsAreOpenBeforeAnythingElseIsOpened) {
  for (int descriptor = 0; descriptor <= 2; ++descriptor) {
    EXPECT_EXIT(
        {
          fakeThread.onStart = [&](ThreadBody, void*) {
            char target[16] = {};
            const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
            if (readlink(path.c_str(), target, sizeof(target) - 1) < 0) _exit(1);
            _exit(strcmp(target, "/dev/null") == 0 ? 0 : 2);
          };
          close(descriptor);
          const CommandLine line({});
          RunDaemon(line.Count(), line.Values());
        },
        testing::ExitedWithCode(0), "")
        << descriptor;
  }
}

TEST_F(Daemon, ClosedStandardDescriptorsAreOpenWithoutANullDeviceToo) {
  EXPECT_EXIT(
      {
        if (!EnterOwnMounts() || !MountOwnDev()) _exit(1);
        fakeThread.onStart = [&](ThreadBody, void*) {
          _exit(fcntl(0, F_GETFD) >= 0 && fcntl(1, F_GETFD) >= 0 && fcntl(2, F_GETFD) >= 0 ? 0 : 2);
        };
        for (int descriptor = 0; descriptor <= 2; ++descriptor) close(descriptor);
        const CommandLine line({});
        RunDaemon(line.Count(), line.Values());
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(Daemon, OpenStandardDescriptorsStayWhatTheyAre) {
  std::string before;
  std::string during;
  const auto look = [] {
    char target[256] = {};
    return readlink("/proc/self/fd/0", target, sizeof(target) - 1) < 0 ? "" : std::string(target);
  };
  before = look();
  fakeThread.onStart = [&](ThreadBody, void*) {
    fakeResponder.initStatus = 1;
    during = look();
  };
  Run();
  EXPECT_EQ(during, before);
}

TEST_F(Daemon, SignalHandlersAreSetBeforeTheResponderStarts) {
  fakeThread.onStart = [&](ThreadBody body, void*) {
    fakeResponder.initStatus = 1;
    if (body == BonjourServiceInit) raise(SIGTERM);
  };
  Run();
  EXPECT_EQ(bTerminate.Get(), 1u);
}

TEST_F(Daemon, SigintAndSigtermOnlySetTheStopFlag) {
  Run();
  for (const int signalNumber : {SIGINT, SIGTERM}) {
    bTerminate.Set(0);
    const Log log = LogOf([&] { raise(signalNumber); });
    EXPECT_EQ(bTerminate.Get(), 1u);
    EXPECT_EQ(log.out, "");
    EXPECT_EQ(log.err, "");
  }
}

TEST_F(Daemon, SigpipeIsIgnored) {
  Run();
  struct sigaction action = {};
  ASSERT_EQ(sigaction(SIGPIPE, nullptr, &action), 0);
  EXPECT_EQ(action.sa_handler, SIG_IGN);
  bTerminate.Set(0);
  raise(SIGPIPE);
  EXPECT_EQ(bTerminate.Get(), 0u);
}

TEST_F(Daemon, StopSignalsThatTheParentBlockedAreUnblocked) {
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &stop, nullptr), 0);
  bool taken[2] = {};
  fakeThread.onStart = [&](ThreadBody body, void*) {
    fakeResponder.initStatus = 1;
    bTerminate.Set(0);
    raise(body == CheckUsbDevice ? SIGTERM : SIGINT);
    taken[body == CheckUsbDevice] = bTerminate.Get() == 1;
  };
  Run();
  EXPECT_TRUE(taken[0]);
  EXPECT_TRUE(taken[1]);
}

// The wait for the responder

TEST_F(Daemon, PollsOnceASecondUntilTheResponderIsUp) {
  isUpAtOnce = false;
  std::vector<unsigned> pauses;
  std::vector<size_t> threadsAtPause;
  fakeSleep.hook = [&](unsigned seconds) {
    pauses.push_back(seconds);
    threadsAtPause.push_back(fakeThread.started.size());
    if (pauses.size() == 5) fakeResponder.initStatus = 1;
  };
  Run();
  fakeSleep.hook = nullptr;
  EXPECT_EQ(pauses, std::vector<unsigned>(5, 1));
  EXPECT_EQ(threadsAtPause, std::vector<size_t>(5, 1));
  EXPECT_EQ(fakeThread.started.size(), 2u);
}

TEST_F(Daemon, DoesNotPauseWhenTheResponderIsUpAtOnce) {
  int pauses = 0;
  fakeSleep.hook = [&](unsigned) { ++pauses; };
  Run();
  fakeSleep.hook = nullptr;
  EXPECT_EQ(pauses, 0);
}

TEST_F(Daemon, StopBeforeTheResponderIsUpDoesNotEndTheWait) {
  isUpAtOnce = false;
  int pauses = 0;
  fakeSleep.hook = [&](unsigned) {
    ++pauses;
    if (pauses == 2) raise(SIGTERM);
    if (pauses == 6) fakeResponder.initStatus = 1;
  };
  const Log log = Run();
  fakeSleep.hook = nullptr;
  EXPECT_EQ(pauses, 6);
  EXPECT_EQ(bTerminate.Get(), 1u);
  EXPECT_EQ(fakeThread.started.size(), 2u);
  ExpectBanner(log.out, "T5140");
}

TEST_F(Daemon, UnknownResponderStatusStartsNoMonitor) {
  isUpAtOnce = false;
  fakeSleep.hook = [](unsigned) { fakeResponder.initStatus = 2; };
  const Log log = Run();
  fakeSleep.hook = nullptr;
  EXPECT_EQ(log.err, "");
  ExpectBanner(log.out, "T5140");
  EXPECT_EQ(fakeThread.started, std::vector<ThreadBody>{BonjourServiceInit});
  EXPECT_EQ(fakeThread.joined, (std::vector<ThreadBody>{BonjourServiceInit, nullptr}));
}

// Threads that cannot be started

TEST_F(Daemon, ResponderThatCannotBeStartedEndsItAtOnce) {
  fakeThread.failsFor = BonjourServiceInit;
  const Log log = Run();
  EXPECT_EQ(status, 0);
  EXPECT_EQ(log.err, kNoThread);
  EXPECT_EQ(log.out, "");
  EXPECT_EQ(bTerminate.Get(), 1u);
  EXPECT_TRUE(fakeThread.started.empty());
  EXPECT_TRUE(fakeThread.joined.empty());
}

TEST_F(Daemon, MonitorThatCannotBeStartedStopsTheResponder) {
  fakeThread.failsFor = CheckUsbDevice;
  const Log log = Run();
  EXPECT_EQ(status, 0);
  EXPECT_EQ(log.err, kNoThread);
  ExpectBanner(log.out, "T5140");
  EXPECT_EQ(bTerminate.Get(), 1u);
  EXPECT_EQ(fakeThread.joined, (std::vector<ThreadBody>{BonjourServiceInit, nullptr}));
}

// The banner and the stop

TEST_F(Daemon, BannerIsPrintedAfterTheMonitorsStartAndBeforeTheJoins) {
  std::string outputAtMonitorStart = "not started";
  fakeThread.onStart = [&](ThreadBody body, void*) {
    fakeResponder.initStatus = 1;
    if (body != CheckUsbDevice) return;
    fflush(stdout);
    outputAtMonitorStart = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
  };
  const Log log = Run();
  EXPECT_EQ(outputAtMonitorStart, "");
  ExpectBanner(log.out, "T5140");
}

TEST_F(Daemon, WaitsForTheStopAfterTheBannerThenEndsTheReceiveThenJoins) {
  std::vector<std::string> events;
  std::string outputAtWait;
  fakeStop.onWait = [&](const sigset_t&) {
    events.emplace_back("wait");
    fflush(stdout);
    outputAtWait += testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    if (events.size() == 3) bTerminate.Set(1);
  };
  fakeResponder.endReceive = [&] {
    events.push_back("end receive, joined " + std::to_string(fakeThread.joined.size()));
  };
  const Log log = Run();
  // A signal that is no stop, or comes before the flag is seen, is waited on.
  EXPECT_THAT(events, testing::ElementsAre("wait", "wait", "wait", "end receive, joined 0"));
  ExpectBanner(outputAtWait, "T5140");
  EXPECT_EQ(log.out, "");
  EXPECT_EQ(fakeThread.joined.size(), 2u);
}

TEST_F(Daemon, StopThatCameBeforeTheWaitIsNotWaitedFor) {
  int waits = 0;
  fakeStop.onWait = [&](const sigset_t&) {
    ++waits;
    bTerminate.Set(1);
  };
  fakeThread.onStart = [&](ThreadBody body, void*) {
    fakeResponder.initStatus = 1;
    if (body == CheckUsbDevice) raise(SIGTERM);
  };
  Run();
  EXPECT_EQ(waits, 0);
}

TEST_F(Daemon, StopSignalsAreUnblockedOnlyDuringTheWait) {
  bool blockedAround = false;
  bool blockedMeanwhile = true;
  fakeStop.onWait = [&](const sigset_t& blocked) {
    sigset_t around;
    pthread_sigmask(SIG_BLOCK, nullptr, &around);
    blockedAround = sigismember(&around, SIGTERM) == 1 && sigismember(&around, SIGINT) == 1;
    blockedMeanwhile = sigismember(&blocked, SIGTERM) == 1 || sigismember(&blocked, SIGINT) == 1;
    bTerminate.Set(1);
  };
  Run();
  EXPECT_TRUE(blockedAround);
  EXPECT_FALSE(blockedMeanwhile);
  bTerminate.Set(0);
  raise(SIGTERM);
  EXPECT_EQ(bTerminate.Get(), 1u);
}

}  // namespace
