"""The Debian package's files in a root in which there is nothing else but BusyBox and the C
library: the daemon runs from there, and its init script starts and stops it."""

import re
import subprocess
import time

import main_path
import pytest
import wire
from lab.daemon import stock_build
from small_system import CHROOT, DAEMON, DEFAULTS, SmallSystem, copy_libraries, lay_out

STOP_SECONDS = 5


@pytest.fixture(scope="session")
def package(tmp_path_factory):
    """The package, which is made of the build for a stock kernel."""
    directory = tmp_path_factory.mktemp("package")
    config = stock_build() / "CPackConfig.cmake"
    subprocess.run(
        ["cpack", "--config", config, "-B", directory], check=True, stdout=subprocess.DEVNULL
    )
    (made,) = directory.glob("*.deb")
    return made


@pytest.fixture
def root(package, tmp_path):
    """A small system with the package in it, as it lies on a router's flash."""
    target = tmp_path / "root"
    subprocess.run(["dpkg-deb", "-x", package, target], check=True)
    lay_out(target)
    copy_libraries(stock_build() / "bonjour", target)
    return target


@pytest.fixture
def system(lab, root):
    return SmallSystem(root, lab.router.sandbox, lab.router.network)


def start(system):
    syslogd = system.spawn("/bin/syslogd", "-O", "/var/log/messages")
    assert syslogd.wait() == 0
    assert system.script("start") == 0


def test_package_holds_what_a_router_needs(root):
    files = {
        "etc/default/bonjour": 0o644,
        "etc/init.d/bonjour": 0o755,
        "usr/sbin/bonjour": 0o755,
        "usr/lib/systemd/system/bonjour.service": 0o644,
        "usr/sbin/bonjour-printers": 0o755,
        "usr/lib/udev/rules.d/70-bonjour.rules": 0o644,
        "usr/share/man/man8/bonjour.8.gz": 0o644,
        "usr/share/man/man8/bonjour-printers.8.gz": 0o644,
    }
    for name, mode in files.items():
        assert (root / name).stat().st_mode & 0o7777 == mode, name


def test_installed_daemon_needs_the_c_library_and_nothing_else(root):
    shown = subprocess.run(
        ["readelf", "-d", root / "usr/sbin/bonjour"], capture_output=True, text=True, check=True
    )
    assert re.findall(r"NEEDED.*\[(.*)\]", shown.stdout) == ["libc.so.6"]


def test_installed_daemon_walks_the_main_path(lab, system, monkeypatch):
    monkeypatch.setenv("BONJOUR", f"/{DAEMON}")
    assert system.run("/usr/sbin/bonjour-printers", "update").returncode == 0
    sent, lines = main_path.walk(lab, [CHROOT, str(system.root)])
    assert sent == main_path.PACKETS
    assert lines == main_path.LINES


def test_init_script_starts_the_daemon_and_stops_it_with_its_goodbyes(lab, system):
    start(system)
    lab.wait_for_transmissions(wire.HOST_PROBE)
    lab.router.end_probe()
    main_path.plug_in(lab)
    since = lab.capture.mark()
    assert system.script("stop") == 0
    assert not system.running
    main_path.wait_for_goodbyes(lab, since)
    log = (system.root / "var/log/messages").read_text()
    assert "bonjour: [Bonjour] default device name = T5140_00-11-22-AA-BB-CC\n" in log


@pytest.mark.lab(bridge=False)
def test_init_script_renews_a_status_file_that_is_wrong(lab, system):
    lab.router.status_file.remove()
    status = system.root / "var/run/bonjour/printer_status"
    status.parent.mkdir()
    status.write_text("usblp0\nGone\nLong ago\n\n\n")
    start(system)
    assert status.read_text() == ""


@pytest.mark.lab(bridge=False)
def test_file_system_that_is_unmounted_beside_the_daemon_is_free(lab, system):
    lab.router.status_file.remove()

    def mounted():
        return "tmpfs the-stick " in system.of_process(system.pid, "mountinfo").read_text()

    mount = f"mkdir {system.root}/stick && mount -t tmpfs the-stick {system.root}/stick"
    assert system.sandbox.spawn(["sh", "-c", mount]).wait() == 0
    start(system)
    assert mounted()
    assert system.sandbox.spawn(["umount", system.root / "stick"]).wait() == 0
    assert not mounted()


def test_model_comes_from_the_one_variable(lab, system):
    (system.root / DEFAULTS).write_text("MODEL=GLXE4700\n")
    start(system)
    lab.wait_for_packet(lambda packet: b"\x1aGLXE4700_00-11-22-AA-BB-CC\x05local" in packet.payload)


@pytest.mark.lab(bridge=False)
def test_model_and_limits_come_from_no_other_place(system):
    (system.root / DEFAULTS).write_text("")
    system.sh("MODEL=GLXE4700 MEMORY_LIMIT=65536 STACK_LIMIT=256 /etc/init.d/bonjour start")
    assert system.processes()[system.pid] == [f"/{DAEMON}"]
    limits = system.of_process(system.pid, "limits").read_text()
    assert " 67108864 " not in limits and " 262144 " not in limits


@pytest.mark.lab(bridge=False)
def test_daemon_whose_bridge_never_came_up_is_killed_at_the_stop(system):
    start(system)
    begun = time.monotonic()
    assert system.script("stop") == 0
    assert time.monotonic() - begun >= STOP_SECONDS
    assert not system.running
