#include <sys/socket.h>

#include <cerrno>

#include "tests/support/fault.h"

Fault socketFault;

extern "C" {
int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol);

int __wrap_socket(int domain, int type, int protocol) {
  if (!socketFault.Strikes()) return __real_socket(domain, type, protocol);
  errno = EMFILE;
  return -1;
}
}
