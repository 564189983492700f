// The whole daemon in a process of its own, on a network and a /proc of the test's own.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "app/daemon.h"
#include "tests/support/command_line.h"
#include "tests/support/own_namespace.h"

namespace {

using Clock = std::chrono::steady_clock;

// Longer than the daemon ever takes for one step, on a busy machine and under a sanitizer too.
constexpr std::chrono::seconds kPatience{25};
constexpr int kSetupFailed = 99;
constexpr uint8_t kMac[6] = {0x00, 0x11, 0x22, 0xAA, 0xBB, 0xCC};

// A running daemon. Killed, if it still runs, when the object goes, and when the test's process
// ends.
class RunningDaemon {
 public:
  // It finds `status` in the printers' status file.
  RunningDaemon(const std::vector<std::string>& arguments, const std::string& status) {
    int ends[2];
    if (pipe(ends) != 0) return;
    fflush(nullptr);
    process = fork();
    if (process == 0) {
      dup2(ends[1], STDOUT_FILENO);
      dup2(ends[1], STDERR_FILENO);
      close(ends[0]);
      close(ends[1]);
      RunChild(arguments, status);
    }
    close(ends[1]);
    outputEnd = ends[0];
  }
  ~RunningDaemon() {
    if (process > 0) {
      kill(process, SIGKILL);
      waitpid(process, nullptr, 0);
    }
    close(outputEnd);
  }
  RunningDaemon(const RunningDaemon&) = delete;
  RunningDaemon& operator=(const RunningDaemon&) = delete;

  // Waits until the output holds `text`.
  bool WaitFor(const std::string& text) {
    const Clock::time_point deadline = Clock::now() + kPatience;
    while (output.find(text) == std::string::npos) {
      if (!ReadMore(deadline)) return false;
    }
    return true;
  }

  void Signal(int signalNumber) const { kill(process, signalNumber); }

  // Replaces what the daemon finds in the printers' status file.
  bool SetStatus(const std::string& status) const {
    return WriteFile("/proc/" + std::to_string(process) + "/root" BONJOUR_STATUS_FILE, status);
  }

  bool IsRunning() const { return waitpid(process, nullptr, WNOHANG) == 0; }

  // Waits for the end and returns the exit status, or -1 when it did not end by itself.
  int WaitForExit() {
    const Clock::time_point deadline = Clock::now() + kPatience;
    while (ReadMore(deadline)) {
    }
    if (!ended) return -1;
    int result = 0;
    waitpid(process, &result, 0);
    process = -1;
    return WIFEXITED(result) ? WEXITSTATUS(result) : -1;
  }

  const std::string& Output() const { return output; }

 private:
  [[noreturn]] static void RunChild(const std::vector<std::string>& arguments,
                                    const std::string& status) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (!EnterOwnMounts() || !MountOwnStatusDirectory() ||
        !WriteFile(BONJOUR_STATUS_FILE, status)) {
      perror("set-up of the test");
      _exit(kSetupFailed);
    }
    const CommandLine line(arguments);
    // As a process ends that returns from main: a sanitizer then looks for leaks.
    exit(RunDaemon(line.Count(), line.Values()));
  }

  // Waits for more output. False at the end of the process or of the time.
  bool ReadMore(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd wait = {outputEnd, POLLIN, 0};
    if (left <= 0 || poll(&wait, 1, static_cast<int>(left)) <= 0) return false;
    char bytes[1024];
    const ssize_t count = read(outputEnd, bytes, sizeof(bytes));
    ended = count == 0;
    if (count <= 0) return false;
    output.append(bytes, static_cast<size_t>(count));
    return true;
  }

  pid_t process = -1;
  int outputEnd = -1;
  bool ended = false;
  std::string output;
};

constexpr char kOnePrinter[] = "usblp0\nHP\nM\nPCL\n\n";

class DaemonRun : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(EnterOwnNetwork()) << strerror(errno); }

  static bool AddUsableBridge() { return AddBridge(kMac) && BringUpBridge("192.168.77.1"); }
};

TEST_F(DaemonRun, StartsPublishesAPrinterAndStopsWithStatusZero) {
  ASSERT_TRUE(AddUsableBridge()) << strerror(errno);
  RunningDaemon daemon({}, kOnePrinter);
  ASSERT_TRUE(daemon.WaitFor("[Bonjour] device insert lp0\n")) << daemon.Output();
  ASSERT_TRUE(daemon.WaitFor("[QX] T5140 Bonjour v2.1 Start (")) << daemon.Output();
  const size_t connected = daemon.Output().find("[Bonjour] Interface: br0 is connected\n");
  const size_t named =
      daemon.Output().find("[Bonjour] default device name = T5140_00-11-22-AA-BB-CC\n");
  const size_t answering = daemon.Output().find("[Bonjour] Answer Name Start (192.168.77.1)\n");
  const size_t banner = daemon.Output().find("[QX]");
  EXPECT_LT(connected, named) << daemon.Output();
  EXPECT_LT(named, answering) << daemon.Output();
  EXPECT_LT(answering, banner) << daemon.Output();

  daemon.Signal(SIGPIPE);
  ASSERT_TRUE(daemon.SetStatus(""));
  ASSERT_TRUE(daemon.WaitFor("[Bonjour] device remove lp0\n")) << daemon.Output();
  daemon.Signal(SIGTERM);
  EXPECT_EQ(daemon.WaitForExit(), 0) << daemon.Output();
}

TEST_F(DaemonRun, StopsOnSigintWithAPrinterStillPublished) {
  ASSERT_TRUE(AddUsableBridge()) << strerror(errno);
  RunningDaemon daemon({"GLXE4700"}, kOnePrinter);
  ASSERT_TRUE(daemon.WaitFor("[Bonjour] default device name = GLXE4700_00-11-22-AA-BB-CC\n"))
      << daemon.Output();
  ASSERT_TRUE(daemon.WaitFor("[Bonjour] device insert lp0\n")) << daemon.Output();
  ASSERT_TRUE(daemon.WaitFor("[QX] GLXE4700 Bonjour v2.1 Start (")) << daemon.Output();
  daemon.Signal(SIGINT);
  EXPECT_EQ(daemon.WaitForExit(), 0) << daemon.Output();
}

TEST_F(DaemonRun, WithoutBridgeItLogsEveryAttemptAndAStopLeavesItWaiting) {
  RunningDaemon daemon({}, kOnePrinter);
  ASSERT_TRUE(daemon.WaitFor("[Bonjour] ioctl HWADDR error: No such device\n")) << daemon.Output();
  ASSERT_TRUE(
      daemon.WaitFor("[Bonjour] ioctl SIOCGIFFLAGS failed:br0\n"
                     "[Bonjour] ioctl SIOCGIFFLAGS failed: No such device\n"
                     "[SocketSetup_For_Interface_N] UpdateHostIP error\n"))
      << daemon.Output();
  daemon.Signal(SIGTERM);
  ASSERT_TRUE(daemon.WaitFor("[Bonjour] default device name = T5140_00-00-00-00-00-00\n"))
      << daemon.Output();
  EXPECT_EQ(daemon.Output().find("Start ("), std::string::npos) << daemon.Output();
  EXPECT_TRUE(daemon.IsRunning());
}

TEST_F(DaemonRun, BridgeThatGetsItsAddressLateIsUsedWithoutProbing) {
  ASSERT_TRUE(AddBridge(kMac)) << strerror(errno);
  RunningDaemon daemon({}, "");
  ASSERT_TRUE(daemon.WaitFor("MDNS_SocketSetup() MDNS_SELF_BIND1 error\n")) << daemon.Output();
  ASSERT_TRUE(daemon.WaitFor("[Bonjour] default device name = T5140_00-11-22-AA-BB-CC\n"))
      << daemon.Output();
  EXPECT_EQ(daemon.Output().find("Start ("), std::string::npos) << daemon.Output();
  ASSERT_TRUE(BringUpBridge("192.168.77.1")) << strerror(errno);
  ASSERT_TRUE(daemon.WaitFor("[Bonjour] Answer Name Start (192.168.77.1)\n")) << daemon.Output();
  ASSERT_TRUE(daemon.WaitFor("[QX] T5140 Bonjour v2.1 Start (")) << daemon.Output();
  EXPECT_EQ(daemon.Output().find("MDNS_CheckName"), std::string::npos) << daemon.Output();
}

}  // namespace
