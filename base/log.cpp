// Log lines on standard output and standard error.
#include "base/log.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/shared.h"
#include "base/text.h"

namespace {

// Which of the standard descriptors are sockets, and whether standard output and standard error
// are one and the same file. Set before any thread but the initial one runs.
bool isSocket[STDERR_FILENO + 1];
bool isOneFile;

// Of standard output and of standard error: 1 while the last line there lacks its end.
SharedFlag tornFlags[] = {SharedFlag(0), SharedFlag(0)};

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

// Returns what the stream is, zeros when it is not there.
struct stat InitStream(int descriptor) {
  struct stat status = {};
  fstat(descriptor, &status);
  isSocket[descriptor] = S_ISSOCK(status.st_mode);
  if (S_ISFIFO(status.st_mode)) StopWaiting(descriptor);
  return status;
}

SharedFlag& TornFlag(int descriptor) {
  return tornFlags[descriptor == STDERR_FILENO && !isOneFile ? 1 : 0];
}

// What can't be written is lost.
void Write(int descriptor, std::initializer_list<std::string_view> parts) {
  char line[1 + kLogLineSize];  // the end of a torn line, and the line
  line[0] = '\n';
  size_t length = 1;
  for (const std::string_view part : parts) {
    const size_t left = sizeof(line) - 1 - length;
    const size_t copied = part.size() < left ? part.size() : left;
    CopyCharacters(line + length, {part.data(), copied});
    length += copied;
  }
  line[length++] = '\n';

  SharedFlag& isTorn = TornFlag(descriptor);
  const char* from = isTorn.Get() != 0 ? line : line + 1;
  while (from < line + length) {
    const auto left = static_cast<size_t>(line + length - from);
    const ssize_t written = isSocket[descriptor]
                                ? send(descriptor, from, left, MSG_DONTWAIT | MSG_NOSIGNAL)
                                : write(descriptor, from, left);
    if (written <= 0) return;
    from += written;
    isTorn.Set(from[-1] != '\n');
  }
}

}  // namespace

void InitLog() {
  const struct stat output = InitStream(STDOUT_FILENO);
  const struct stat error = InitStream(STDERR_FILENO);
  isOneFile = output.st_dev == error.st_dev && output.st_ino == error.st_ino;
}

void LogLine(const char* text) { Write(STDOUT_FILENO, {text}); }

void LogLine(std::initializer_list<std::string_view> parts) { Write(STDOUT_FILENO, parts); }

void LogError(const char* text, int error) { Write(STDERR_FILENO, {text, ": ", strerror(error)}); }

void LogNoMemory() { LogError("[Bonjour] malloc error", errno); }

void LogUpdateHostIPError(const char* caller) { LogLine({"[", caller, "] UpdateHostIP error"}); }
