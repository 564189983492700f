#include <sys/socket.h>

#include <cerrno>
#include <cstdint>

#include "tests/support/fault.h"

Fault setsockoptFault;

namespace {

std::vector<SocketOption> options;

}  // namespace

std::vector<SocketOption> SetOptions() { return options; }

extern "C" {
int __real_setsockopt(int socket, int level, int option, const void* value, socklen_t size);
int __wrap_setsockopt(int socket, int level, int option, const void* value, socklen_t size);

int __wrap_setsockopt(int socket, int level, int option, const void* value, socklen_t size) {
  const auto* bytes = static_cast<const uint8_t*>(value);
  options.push_back({level, option, {bytes, bytes + size}});
  if (!setsockoptFault.Strikes()) return __real_setsockopt(socket, level, option, value, size);
  errno = EPERM;
  return -1;
}
}
