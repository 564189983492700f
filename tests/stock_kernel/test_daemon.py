"""The daemon on a kernel that writes no status file, started as the package starts it there."""

import os
import shutil

import main_path
import pytest
from stock_system import CHROOT, STATUS_FILE

from lab.daemon import binary

DAEMON = "/usr/sbin/bonjour"
IPP = "_ipp._tcp.local"
PDL = "_pdl-datastream._tcp.local"
HP = b"MFG:HP;MDL:Model 12;CMD:PJL,PCL;"
RUN = ["/usr/sbin/bonjour-printers", "run"]


@pytest.fixture
def lab(lab, system, monkeypatch):
    """The lab, with the daemon in the small system, whose kernel writes no status file."""
    shutil.copy(binary(), system.root / DAEMON.lstrip("/"))
    system.copy_libraries(binary())
    monkeypatch.setenv("BONJOUR", DAEMON)
    lab.router.status_file.remove()
    # The small system's root is a mount of its own, as every system's is.
    root = system.root
    mounts = f"mount --bind {root} {root} && mount --rbind /proc {root}/proc"
    assert lab.router.sandbox.spawn(["sh", "-c", mounts]).wait() == 0
    return lab


@pytest.fixture
def start(system):
    """What precedes the daemon's command line."""
    return [CHROOT, str(system.root), *RUN]


def services(lab):
    """The service names that the router announced."""
    return {
        packet.message.answers[1].data
        for packet in lab.sent()
        if not packet.is_query and packet.message.answers[1].name in (IPP, PDL)
    }


def test_main_path_with_printers_that_sysfs_shows(lab, system, start, monkeypatch):
    def plug_in(port):
        system.plug_in(port, HP)
        system.update()

    def pull_out(port):
        system.pull_out(port)
        system.update()

    monkeypatch.setattr(lab.router, "plug_in", plug_in)
    monkeypatch.setattr(lab.router, "pull_out", pull_out)
    sent, lines = main_path.walk(lab, start)
    assert sent == main_path.PACKETS
    assert lines == main_path.LINES


def test_printer_that_is_there_before_the_daemon_is_published(lab, system, start):
    system.plug_in(0, HP)
    lab.router.start(wrapper=start)
    lab.router.daemon.wait_for_line("[Bonjour] device insert lp0")
    lab.wait_for_packet(lambda packet: b"\x0bty=Model 12" in packet.payload, count=6)
    assert services(lab) == {f"HP Model 12 (aa:bb:cc) 0.{type}" for type in (IPP, PDL)}


def test_every_record_that_is_written_is_published_under_a_name_of_one_label(lab, system, start):
    """That packets are well-formed is checked of every test's."""
    models = {
        b"MFG:A;MDL:Jet 2.0;CMD:C;": "A Jet 2_0",
        b"MFG:A;MDL:usblp2;CMD:usblp3;": "A usb_lp2",
        b"MFG:\tA\n;MDL:B\rC;": "A B C",
        b"MFG:A;MDL:B;CMD:" + b"C," * 500: "A B",
        b"MFG:A;MDL:" + b"B" * 1000: "A " + "B" * 48,
        b"MFG:" + b"A" * 1000 + b";MDL:" + b"B" * 1000: "A" * 15 + " " + "B" * 34,
        b"MFG:" + b"A" * 99 + b";MDL:" + b"B" * 99 + b";CMD:" + b"PCL," * 99: (
            "A" * 15 + " " + "B" * 34
        ),
        b"MFG:A;MDL:B;CMD:" + b"C" * 118: "A B",
        b"MFG:A;MDL:%s%n \\0 \\;CMD:\\": "A %s%n \\0 \\",
        b"MFG:$HOME;MDL:`x` \"';CMD:\"": "$HOME `x` \"'",
    }
    for port, device_id in enumerate(models):
        system.plug_in(port, device_id)
    daemon = lab.router.start("GLXE4800b5", wrapper=start)
    daemon.wait_for_line("[Bonjour] device insert lp9")
    expected = {
        f"{model} (aa:bb:cc) {port}.{type}"
        for port, model in enumerate(models.values())
        for type in (IPP, PDL)
    }
    # Three transmissions of two packets for each of twenty services, and of the host's probe.
    lab.wait_for_packet(lambda packet: True, count=3 * (2 * 20 + 1))
    assert services(lab) == expected
    assert daemon.count("[Bonjour] GetTXTData error") == 0


def test_daemon_sees_the_status_file_and_nothing_else_of_proc(lab, start):
    daemon = lab.router.start(wrapper=start)
    assert os.listdir(f"/proc/{daemon.pid}/root/proc") == ["printer_status"]


def test_other_programs_see_the_kernels_proc(lab, system, start):
    lab.router.start(wrapper=start)
    looking = [CHROOT, str(system.root), "/bin/sh", "-c", "[ -e /proc/self ]"]
    assert lab.router.sandbox.spawn(looking).wait() == 0


def test_with_a_kernel_that_writes_the_file_that_file_counts(lab, system, start):
    system.plug_in(0, b"MFG:Not;MDL:This;")
    lab.router.status_file.replace("")
    sent, lines = main_path.walk(lab, start)
    assert sent == main_path.PACKETS
    assert lines == main_path.LINES
    assert not (system.root / STATUS_FILE).exists()


@pytest.mark.parametrize("program", ["unshare", "mount"])
def test_where_nothing_can_be_mounted_the_daemon_is_started_all_the_same(system, program):
    system.replace_program(program, "#!/bin/sh\nexit 1\n")
    done = system.run(*RUN, "/bin/sh", "-c", "echo started")
    assert (done.returncode, done.stdout, done.stderr) == (0, "started\n", "")
    assert system.log == [
        "bonjour-printers: nothing can be mounted over /proc, so no printers are published"
    ]
