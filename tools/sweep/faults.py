"""Which calls a daemon makes on its way, and so which faults there are."""

import functools
import operator
import subprocess

from sweep.walk import PHASES, Fault

# How a function fails: once, and while it fails for a second.
ERRORS = {
    "calloc": ("ENOMEM", "ENOMEM"),
    "mmap": ("ENOMEM", "EAGAIN"),
    "pthread_create": ("EAGAIN", "EAGAIN"),
    "socket": ("EMFILE", "ENOBUFS"),
    "eventfd": ("EMFILE", "ENOMEM"),
    "setsockopt": ("ENOPROTOOPT", "ENOMEM"),
    "bind": ("EADDRINUSE", "ENOMEM"),
    "ioctl": ("EIO", "ENODEV"),
    "open": ("EMFILE", "ENOMEM"),
    "read": ("EINTR", "EIO"),
    "recvfrom": ("EINTR", "ENETDOWN"),
    "recvmsg": ("EINTR", "ENETDOWN"),
    "sendto": ("ENETUNREACH", "ENOBUFS"),
    "write": ("EAGAIN", "EIO"),
    "close": ("EINTR", "EIO"),
    "poll": ("EINTR", "ENOMEM"),
    "ppoll": ("EINTR", "ENOMEM"),
    "sleep": ("EINTR", "EINTR"),
    "usleep": ("EINTR", "EINTR"),
    "sigsuspend": ("EINTR", "EINTR"),
    "shutdown": ("ENOTCONN", "EIO"),
    "fcntl": ("EBADF", "EINTR"),
    "fstat": ("EIO", "ENOMEM"),
    "dup2": ("EMFILE", "EINTR"),
    "sysconf": ("EINVAL", "EINVAL"),
    "getrandom": ("EAGAIN", "ENOSYS"),
    "pthread_attr_setstacksize": ("EINVAL", "EINVAL"),
}
# Of calls that are alike, in one phase of one thread, so many are swept: the longest series that is
# no polling is the datagrams that end the probe.
SERIES_MAX = 12

# What the daemons call and what does not fail: on memory alone, with valid arguments alone, or
# without a failure that they could notice. `send` is called where the log is a socket, which has
# its tests in tests/base/log_test.cpp.
CANNOT_FAIL = frozenset(
    "__cmsg_nxthdr __errno_location __libc_start_main __memcpy_chk __snprintf_chk "
    "__stack_chk_fail clock_gettime exit free inet_addr inet_ntop malloc_trim mallopt memchr "
    "memcmp memcpy memmove memset munmap pthread_attr_destroy pthread_attr_init "
    "pthread_attr_setdetachstate pthread_cond_destroy pthread_join pthread_mutex_destroy "
    "pthread_mutex_lock pthread_mutex_unlock pthread_sigmask send sigaddset sigemptyset signal "
    "snprintf strchr strcmp strerror strlen strncmp strnlen".split()
)


def unknown_calls(binary):
    """What a program calls of libc that is neither swept nor known not to fail."""
    listed = subprocess.run(["nm", "-D", "-P", binary], check=True, capture_output=True, text=True)
    symbols = (line.split() for line in listed.stdout.splitlines())
    called = {name.partition("@")[0] for name, kind, *_ in symbols if kind == "U"}
    return called - ERRORS.keys() - CANNOT_FAIL


def all_faults(responder, walks):
    """The faults at the calls that each of these walks without a fault made."""
    for phase in PHASES:
        # What not each of the walks reaches depends on the machine's load.
        reached = functools.reduce(operator.and_, (walk.calls_of(phase) for walk in walks))
        for (thread, function, about), count in sorted(reached.items()):
            for number in range(min(count, SERIES_MAX) if function in ERRORS else 0):
                for lasts in (False, True):
                    error = ERRORS[function][lasts]
                    yield Fault(responder, phase, thread, function, about, number, error, lasts)
