// Log lines on standard output and standard error.
#include "base/log.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/text.h"

namespace {

// Which of the standard descriptors are sockets. Set before any thread but the initial one runs.
bool isSocket[STDERR_FILENO + 1];

// What /proc shows of this process's standard output and standard error.
constexpr const char* kOwnDescriptors[] = {"", "/proc/self/fd/1", "/proc/self/fd/2"};

void StopWaiting(int pipe) {
  const int own = open(kOwnDescriptors[pipe], O_WRONLY | O_NONBLOCK);
  if (own < 0) {
    fcntl(pipe, F_SETFL, fcntl(pipe, F_GETFL) | O_NONBLOCK);
    return;
  }
  dup2(own, pipe);
  close(own);
}

void InitStream(int descriptor) {
  struct stat status;
  if (fstat(descriptor, &status) != 0) return;
  isSocket[descriptor] = S_ISSOCK(status.st_mode);
  if (S_ISFIFO(status.st_mode)) StopWaiting(descriptor);
}

// What can't be written is lost.
void Write(int descriptor, std::initializer_list<std::string_view> parts) {
  char line[kLogLineSize];
  size_t length = 0;
  for (const std::string_view part : parts) {
    const size_t left = sizeof(line) - 1 - length;
    const size_t copied = part.size() < left ? part.size() : left;
    CopyCharacters(line + length, {part.data(), copied});
    length += copied;
  }
  line[length++] = '\n';
  const ssize_t written = isSocket[descriptor]
                              ? send(descriptor, line, length, MSG_DONTWAIT | MSG_NOSIGNAL)
                              : write(descriptor, line, length);
  static_cast<void>(written);
}

}  // namespace

void InitLog() {
  InitStream(STDOUT_FILENO);
  InitStream(STDERR_FILENO);
}

void LogLine(const char* text) { Write(STDOUT_FILENO, {text}); }

void LogLine(std::initializer_list<std::string_view> parts) { Write(STDOUT_FILENO, parts); }

void LogError(const char* text, int error) { Write(STDERR_FILENO, {text, ": ", strerror(error)}); }

void LogNoMemory() { LogError("[Bonjour] malloc error", errno); }

void LogUpdateHostIPError(const char* caller) { LogLine({"[", caller, "] UpdateHostIP error"}); }
