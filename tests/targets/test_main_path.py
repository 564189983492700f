"""The builds for devices go through the daemon's main job in the lab, unmodified; those for another
CPU under qemu-user. Run by tools/targets, which makes the builds."""

import pathlib
import re
import subprocess

import main_path
import pytest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
# For what qemu-user refuses, the socket option IP_MULTICAST_IF: this accepts the one value that
# the daemon sets, the kernel's own default, and hands every other call on.
SHIM = r"""
#define _GNU_SOURCE
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

int setsockopt(int fd, int level, int name, const void* value, socklen_t length) {
  if (level == IPPROTO_IP && name == IP_MULTICAST_IF && *(const in_addr_t*)value == 0) return 0;
  return (int)syscall(SYS_setsockopt, fd, level, name, value, length);
}
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


@pytest.mark.parametrize("preset", CPUS)
def test_device_id_is_asked_for_with_the_request_of_this_cpu(preset, wrapper, router):
    """qemu-user does not hand this request on to a device; it names it in its log, which is how the
    value that the unmodified binary uses is seen."""
    daemon = router.start(wrapper=wrapper("-d", "unimp"))
    router.sandbox.path("/dev/usblp0").touch()
    router.plug_in(0, model="")
    daemon.wait_for_line("[Bonjour] GetTXTData error", count=2)
    daemon.wait_for_line(f"Unsupported ioctl: cmd={CPUS[preset][2]}", count=2)
