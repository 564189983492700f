"""The builds for devices go through the daemon's main job in the lab, unmodified; those for another
CPU under qemu-user. Run by tools/targets, which makes the builds."""

import pathlib
import re
import subprocess

import main_path
import pytest
from lab import Lab

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
HERE = pathlib.Path(__file__).resolve().parent
LIBRARIES = {
    "mips": ("qemu-mips", "mips-linux-gnu"),
    "mipsel": ("qemu-mipsel", "mipsel-linux-gnu"),
    "armel": ("qemu-arm -cpu arm926", "arm-linux-gnueabi"),
    "armhf": ("qemu-arm", "arm-linux-gnueabihf"),
    "aarch64": ("qemu-aarch64", "aarch64-linux-gnu"),
}
# A line that qemu-user itself prints of a call that it lacks; the C library then does without.
OF_QEMU = re.compile(r"Unsupported syscall: \d+")


def emulated(preset, directory, *options):
    """What runs a program of this build under qemu-user, with the one socket option added that
    qemu-user lacks."""
    emulator, machine = LIBRARIES[preset]
    shim = directory / "multicast_interface.so"
    compile_command = [f"{machine}-gcc", "-O2", "-shared", "-fPIC", "-Wall", "-Wextra", "-Werror"]
    subprocess.run([*compile_command, "-o", shim, HERE / "multicast_interface.c"], check=True)
    libraries = f"/usr/{machine}"
    return [*emulator.split(), *options, "-L", libraries, "-E", f"LD_PRELOAD={shim}"]


def walk(preset, wrapper=()):
    with pytest.MonkeyPatch.context() as patch, Lab() as lab:
        patch.setenv("BONJOUR", str(ROOT / "build" / preset / "bonjour"))
        try:
            sent, lines = main_path.walk(lab, wrapper)
        except BaseException:
            print(lab.timeline())
            raise
        lab.check_packets()
        return sent, {text: n for text, n in lines.items() if not OF_QEMU.fullmatch(text)}


@pytest.fixture(scope="module")
def native():
    return walk("release")


@pytest.mark.parametrize("preset", LIBRARIES)
def test_main_path_on_another_cpu_sends_the_very_bytes_of_the_native_build(
    preset, native, tmp_path
):
    sent, lines = walk(preset, emulated(preset, tmp_path))
    native_sent, native_lines = native
    assert sent == native_sent == main_path.PACKETS
    assert lines == native_lines == main_path.LINES


@pytest.mark.parametrize("preset", ["musl", "musl-static"])
def test_main_path_with_another_c_library(preset):
    sent, lines = walk(preset)
    assert sent == main_path.PACKETS
    assert lines == main_path.LINES


@pytest.mark.parametrize(
    "preset, request_number",
    [("mips", "0x42005001"), ("mipsel", "0x42005001"), ("armel", "0xffffffff82005001")]
    + [("armhf", "0xffffffff82005001"), ("aarch64", "0xffffffff82005001")],
)
def test_device_id_is_asked_for_with_the_request_of_this_cpu(
    preset, request_number, monkeypatch, tmp_path
):
    """qemu-user does not hand this request on to a device; it names it in its log, which is how the
    value that the unmodified binary uses is seen."""
    monkeypatch.setenv("BONJOUR", str(ROOT / "build" / preset / "bonjour"))
    with Lab() as lab:
        router = lab.router
        daemon = router.start(wrapper=emulated(preset, tmp_path, "-d", "unimp"))
        router.sandbox.path("/dev/usblp0").touch()
        router.plug_in(0, model="")
        daemon.wait_for_line("[Bonjour] GetTXTData error", count=2)
        daemon.wait_for_line(f"Unsupported ioctl: cmd={request_number}", count=2)
        router.stop()
