"""Network namespaces without a name: one lives as long as a descriptor or a process holds it."""

import array
import contextlib
import ctypes
import fcntl
import os
import socket
import struct
import subprocess
import time

_CLONE_NEWNET = 0x40000000
_CLONE_NEWPID = 0x20000000
_SIOCETHTOOL = 0x8946
_ETHTOOL_GLINK = 0x0A
_SIOCGIFFLAGS = 0x8913
_IFF_RUNNING = 0x40
_RUNNING_BOUND = 10.0
_libc = ctypes.CDLL(None, use_errno=True)


def _check(result):
    if result != 0:
        number = ctypes.get_errno()
        raise OSError(number, os.strerror(number))


@contextlib.contextmanager
def _entered(descriptor, own_path, kind):
    own = os.open(own_path, os.O_RDONLY | os.O_CLOEXEC)
    try:
        _check(_libc.setns(descriptor, kind))
        try:
            yield
        finally:
            _check(_libc.setns(own, kind))
    finally:
        os.close(own)


def children_in_pid_namespace(descriptor):
    """While entered, processes that this thread starts are born in that process namespace."""
    return _entered(descriptor, "/proc/self/ns/pid", _CLONE_NEWPID)


class NetworkNamespace:
    """An empty network with its loopback up and without IPv6, gone when closed or when we end."""

    def __init__(self):
        own = os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)
        try:
            _check(_libc.unshare(_CLONE_NEWNET))
            try:
                self.descriptor = os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)
                for scope in ("all", "default"):
                    path = f"/proc/sys/net/ipv6/conf/{scope}/disable_ipv6"
                    with contextlib.suppress(FileNotFoundError), open(path, "w") as switch:
                        switch.write("1")
            finally:
                _check(_libc.setns(own, _CLONE_NEWNET))
        finally:
            os.close(own)
        self.ip("link set lo up")

    def close(self):
        if self.descriptor >= 0:
            os.close(self.descriptor)
            self.descriptor = -1

    def entered(self):
        """Context in which the calling thread's new sockets belong to this network."""
        return _entered(self.descriptor, "/proc/thread-self/ns/net", _CLONE_NEWNET)

    @property
    def path(self):
        """Where other processes of this machine find the namespace, for nsenter --net=."""
        return f"/proc/{os.getpid()}/fd/{self.descriptor}"

    def ip(self, *commands, passing=()):
        """Runs commands of ip(8), each without its leading `ip`, in one go; raises if one fails."""
        with self.entered():
            done = subprocess.run(
                ["ip", "-batch", "-"],
                input="".join(f"{command}\n" for command in commands),
                text=True,
                capture_output=True,
                pass_fds=passing,
            )
        if done.returncode != 0:
            raise RuntimeError(f"ip {commands}: {done.stderr.strip()}")

    def wait_until_running(self, *interfaces):
        """Waits until these interfaces carry packets: what is sent before that is lost.

        The kernel may take a second to notice a carrier by itself; asking an interface for its
        link state through the ethtool request makes it look at once.
        """
        deadline = time.monotonic() + _RUNNING_BOUND
        with self.entered(), socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as asking:
            for interface in interfaces:
                while not _has_link(asking, interface):
                    if time.monotonic() > deadline:
                        raise RuntimeError(f"{interface} does not come up")
                    time.sleep(0.001)


def _has_link(asking, interface):
    value = array.array("I", [_ETHTOOL_GLINK, 0])
    request = struct.pack("16sP16x", interface.encode(), value.buffer_info()[0])
    fcntl.ioctl(asking, _SIOCETHTOOL, request)
    flags = struct.unpack("16xH22x", fcntl.ioctl(asking, _SIOCGIFFLAGS, request))[0]
    return value[1] == 1 and flags & _IFF_RUNNING
