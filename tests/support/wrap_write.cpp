#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "tests/support/fault.h"

std::deque<ssize_t> writeResults;

extern "C" {
ssize_t __real_write(int descriptor, const void* bytes, size_t count);
ssize_t __wrap_write(int descriptor, const void* bytes, size_t count);

ssize_t __wrap_write(int descriptor, const void* bytes, size_t count) {
  if (writeResults.empty()) return __real_write(descriptor, bytes, count);
  const ssize_t result = writeResults.front();
  writeResults.pop_front();
  if (result >= 0) {
    return __real_write(descriptor, bytes, std::min(count, static_cast<size_t>(result)));
  }
  errno = ENOSPC;
  return -1;
}
}
