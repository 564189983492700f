"""The builds for devices go through the daemon's main job in the lab, unmodified; those for another
CPU under qemu-user. Run by tools/targets, which makes the builds."""

import pathlib
import re
import subprocess

import main_path
import pytest
import standard_path

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
# For what qemu-user does not hand on to the kernel as it is: which interface multicasts leave by
# (the kernel's own choice anyway, or the one that the socket is bound to); that no other groups are
# wanted; a 64-bit machine's interface in a membership; and the interface by which a datagram came,
# which a big-endian machine sees as this machine's kernel wrote it.
SHIM = r"""
#define _GNU_SOURCE
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

int setsockopt(int fd, int level, int name, const void* value, socklen_t length) {
  union {
    struct ip_mreqn here;
    long fields[2];
  } membership = {};
  if (level == IPPROTO_IP && name == IP_MULTICAST_IF && *(const int*)value == 0) return 0;
  if (level == IPPROTO_IP && name == IP_MULTICAST_ALL && *(const int*)value == 0) return 0;
  if (level == IPPROTO_IPV6 && name == IPV6_MULTICAST_IF) return 0;
  if (level == IPPROTO_IPV6 && name == IPV6_MULTICAST_ALL && *(const int*)value == 0) return 0;
  if (sizeof(long) == 8 && level == IPPROTO_IP && length == sizeof(membership.here) &&
      (name == IP_ADD_MEMBERSHIP || name == IP_DROP_MEMBERSHIP)) {
    memcpy(&membership.here, value, length);
    value = &membership;
    length = sizeof(membership);
  }
  return (int)syscall(SYS_setsockopt, fd, level, name, value, length);
}

#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
ssize_t recvmsg(int fd, struct msghdr* message, int flags) {
  const ssize_t length = syscall(SYS_recvmsg, fd, message, flags);
  struct cmsghdr* part = length < 0 ? NULL : CMSG_FIRSTHDR(message);
  for (; part != NULL; part = CMSG_NXTHDR(message, part)) {
    int* index = NULL;
    if (part->cmsg_level == IPPROTO_IP && part->cmsg_type == IP_PKTINFO) {
      index = &((struct in_pktinfo*)CMSG_DATA(part))->ipi_ifindex;
    } else if (part->cmsg_level == IPPROTO_IPV6 && part->cmsg_type == IPV6_PKTINFO) {
      index = (int*)&((struct in6_pktinfo*)CMSG_DATA(part))->ipi6_ifindex;
    }
    if (index != NULL) *index = (int)__builtin_bswap32((unsigned)*index);
  }
  return length;
}
#endif
"""
# The emulator, its C library, and the request for a device id, which a 64-bit host widens.
CPUS = {
    "mips": ("qemu-mips", "mips-linux-gnu", "0x42005001"),
    "mips16": ("qemu-mips", "mips-linux-gnu", "0x42005001"),
    "mipsel": ("qemu-mipsel", "mipsel-linux-gnu", "0x42005001"),
    "armel": ("qemu-arm -cpu arm926", "arm-linux-gnueabi", "0xffffffff82005001"),
    "armhf": ("qemu-arm", "arm-linux-gnueabihf", "0xffffffff82005001"),
    "aarch64": ("qemu-aarch64", "aarch64-linux-gnu", "0xffffffff82005001"),
}
# A line that qemu-user itself prints of a call that it lacks; the C library then does without.
OF_QEMU = re.compile(r"Unsupported syscall: \d+")


@pytest.fixture
def wrapper(preset, monkeypatch, tmp_path):
    """Has the lab start this build, and gives what runs it, with further options."""
    monkeypatch.setenv("BONJOUR", str(ROOT / "build" / preset / "bonjour"))
    if preset not in CPUS:
        return lambda *options: ()
    emulator, machine, _ = CPUS[preset]
    shim = tmp_path / "shim.so"
    compile_command = [f"{machine}-gcc", "-O2", "-shared", "-fPIC", "-o", shim, "-xc", "-"]
    subprocess.run(compile_command, input=SHIM, text=True, check=True)
    library = ["-L", f"/usr/{machine}", "-E", f"LD_PRELOAD={shim}"]
    return lambda *options: [*emulator.split(), *options, *library]


@pytest.mark.parametrize("preset", ["release", *CPUS, "musl", "musl-static"])
def test_main_path_sends_and_prints_the_very_same(preset, wrapper, lab):
    sent, lines = main_path.walk(lab, wrapper())
    assert sent == main_path.PACKETS
    assert {text: n for text, n in lines.items() if not OF_QEMU.fullmatch(text)} == main_path.LINES


@pytest.mark.parametrize("responder", ["standard"])
@pytest.mark.parametrize("preset", [cpu for cpu in CPUS if cpu != "mips16"])
def test_main_path_of_the_standard_responder_is_right(preset, wrapper, lab):
    standard_path.check(lab, wrapper())


@pytest.mark.parametrize("preset", CPUS)
def test_device_id_is_asked_for_with_the_request_of_this_cpu(preset, wrapper, router):
    """qemu-user does not hand this request on to a device; it names it in its log, which is how the
    value that the unmodified binary uses is seen."""
    daemon = router.start(wrapper=wrapper("-d", "unimp"))
    router.sandbox.path("/dev/usblp0").touch()
    router.plug_in(0, model="")
    daemon.wait_for_line("[Bonjour] GetTXTData error", count=2)
    daemon.wait_for_line(f"Unsupported ioctl: cmd={CPUS[preset][2]}", count=2)
