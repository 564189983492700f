// The daemon: start-up, waiting, stop.
#include "app/daemon.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "app/device_name.h"
#include "base/log.h"
#include "base/responder.h"
#include "base/stop_signals.h"
#include "base/thread.h"
#include "printer/monitor.h"

namespace {

constexpr unsigned kStatusPollSeconds = 1;

void StopHandler(int /*signal*/) { bTerminate.Set(1); }

// A socket or a printer in the place of a closed standard descriptor would get the log lines.
void OpenStandardDescriptors() {
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) >= 0) continue;
    // What is opened gets the lowest free number, which is this one.
    if (open("/dev/null", O_RDWR) < 0) static_cast<void>(open("/", O_RDONLY));
  }
}

void InstallSignals() {
  signal(SIGPIPE, SIG_IGN);
  signal(SIGINT, StopHandler);
  signal(SIGTERM, StopHandler);
  // Whoever started the process may have left them blocked.
  const sigset_t stop = StopSignals();
  pthread_sigmask(SIG_UNBLOCK, &stop, nullptr);
}

// Returns once a stop was asked for. The signals are let in by sigsuspend(2) alone, so none comes
// between the look at the flag and the wait.
void WaitForStop() {
  const sigset_t stop = StopSignals();
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &stop, &before);
  while (!IsTerminating()) sigsuspend(&before);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void PrintBanner(const char* model) {
  LogLine({"[QX] ", model, " Bonjour v", BONJOUR_VERSION, " Start (", BONJOUR_BUILD_TIME, ")"});
}

// A thread of the daemon could not be created: the others end too.
void StopForThreadError(int error) {
  LogError(kNoLastingThread, error);
  bTerminate.Set(1);
}

}  // namespace

int RunDaemon(int argc, char* const* argv) {
  OpenStandardDescriptors();
  InitLog();

  memset(hw_addr, 0, sizeof(hw_addr));
  InstallSignals();
  char model[kModelNameSize];
  ChooseModel(model, argc, argv);
  ReadBridgeMac(hw_addr);
  ResponderStartRecord start = {"", 1};
  FormatDeviceName(start.deviceName, model, hw_addr);

  JoinableThread responder;
  int error = StartThread(responder, BonjourServiceInit, &start);
  if (error != 0) {
    StopForThreadError(error);
    return 0;
  }
  // Whether or not a stop is asked for meanwhile (docs/behaviour.md).
  while (GetBonjourInitStatus() == 0) sleep(kStatusPollSeconds);

  JoinableThread monitor = {};
  if (GetBonjourInitStatus() == 1) {
    error = StartThread(monitor, CheckUsbDevice, nullptr);
    if (error != 0) StopForThreadError(error);
  }
  PrintBanner(model);
  WaitForStop();
  EndReceive();
  JoinThread(responder);
  JoinThread(monitor);
  return 0;
}
