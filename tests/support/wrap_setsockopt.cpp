#include <sys/socket.h>

#include <cerrno>

#include "tests/support/fault.h"

Fault setsockoptFault;

extern "C" {
int __real_setsockopt(int socket, int level, int option, const void* value, socklen_t size);
int __wrap_setsockopt(int socket, int level, int option, const void* value, socklen_t size);

int __wrap_setsockopt(int socket, int level, int option, const void* value, socklen_t size) {
  if (!setsockoptFault.Strikes()) return __real_setsockopt(socket, level, option, value, size);
  errno = EPERM;
  return -1;
}
}
