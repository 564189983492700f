/* What qemu-user lacks: it refuses the socket option IP_MULTICAST_IF. Loaded before the daemon's C
   library inside the emulation, this accepts the one value that the daemon sets, which is the
   kernel's own default for a new socket, and hands every other call on. */
#define _GNU_SOURCE
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

int setsockopt(int fd, int level, int name, const void* value, socklen_t length) {
  if (level == IPPROTO_IP && name == IP_MULTICAST_IF && length == sizeof(struct in_addr) &&
      ((const struct in_addr*)value)->s_addr == htonl(INADDR_ANY)) {
    return 0;
  }
  return (int)syscall(SYS_setsockopt, fd, level, name, value, length);
}
