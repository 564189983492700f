"""The Debian package's files in a root in which there is nothing else but BusyBox and the C library:
the daemon runs from there, and its init script starts and stops it."""

import pathlib
import re
import shutil
import subprocess
import time

import main_path
import pytest
import wire
from lab.daemon import binary

CHROOT = "/usr/sbin/chroot"
BUSYBOX = pathlib.Path("/bin/busybox")
STOP_SECONDS = 8


@pytest.fixture(scope="session")
def package(tmp_path_factory):
    """The package, made of the build that the daemon under test is of."""
    directory = tmp_path_factory.mktemp("package")
    config = binary().parent / "CPackConfig.cmake"
    subprocess.run(
        ["cpack", "--config", config, "-B", directory], check=True, stdout=subprocess.DEVNULL
    )
    (made,) = directory.glob("*.deb")
    return made


@pytest.fixture
def root(package, tmp_path):
    """A small system with the package in it, as it lies on a router's flash."""
    target = tmp_path / "root"
    for directory in ("bin", "dev", "proc", "tmp", "var/run", "var/log"):
        (target / directory).mkdir(parents=True)
    subprocess.run(["dpkg-deb", "-x", package, target], check=True)
    shutil.copy(BUSYBOX, target / "bin")
    for applet in ("sh", "cat", "sleep", "setsid", "logger", "syslogd"):
        (target / "bin" / applet).symlink_to("busybox")
    listed = subprocess.run(["ldd", binary()], capture_output=True, text=True, check=True)
    for library in re.findall(r"(/\S+) \(0x", listed.stdout):
        copy = target / library.lstrip("/")
        copy.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(library, copy)
    return target


@pytest.fixture
def lab(lab, root):
    """The lab, with the router's /proc and /dev seen in its small system."""
    mounts = f"mount --rbind /proc {root}/proc && mount --rbind /dev {root}/dev"
    assert lab.router.sandbox.spawn(["sh", "-c", mounts]).wait() == 0
    return lab


class Init:
    def __init__(self, lab, root):
        self._lab = lab
        self._root = root

    def run(self, action):
        """The exit status of the init script, called with this action."""
        return self._spawn("/etc/init.d/bonjour", action).wait()

    def _spawn(self, *command):
        router = self._lab.router
        return router.sandbox.spawn([CHROOT, self._root, *command], network=router.network)

    @property
    def running(self):
        return self.run("status") == 0

    def start(self):
        syslogd = self._spawn("/bin/syslogd", "-O", "/var/log/messages")
        assert syslogd.wait() == 0
        assert self.run("start") == 0

    @property
    def log(self):
        return (self._root / "var/log/messages").read_text()


@pytest.fixture
def init(lab, root):
    return Init(lab, root)


def test_package_holds_what_a_router_needs(root):
    files = {
        "etc/default/bonjour": 0o644,
        "etc/init.d/bonjour": 0o755,
        "usr/sbin/bonjour": 0o755,
        "usr/lib/systemd/system/bonjour.service": 0o644,
        "usr/share/man/man8/bonjour.8.gz": 0o644,
    }
    for name, mode in files.items():
        assert (root / name).stat().st_mode & 0o7777 == mode, name


def test_installed_daemon_needs_the_c_library_and_nothing_else(root):
    shown = subprocess.run(
        ["readelf", "-d", root / "usr/sbin/bonjour"], capture_output=True, text=True, check=True
    )
    assert re.findall(r"NEEDED.*\[(.*)\]", shown.stdout) == ["libc.so.6"]


def test_installed_daemon_walks_the_main_path(lab, root, monkeypatch):
    monkeypatch.setenv("BONJOUR", "/usr/sbin/bonjour")
    sent, lines = main_path.walk(lab, [CHROOT, str(root)])
    assert sent == main_path.PACKETS
    assert lines == main_path.LINES


def test_init_script_starts_the_daemon_and_stops_it_with_its_goodbyes(lab, init):
    init.start()
    assert init.running
    lab.wait_for_transmissions(wire.HOST_PROBE)
    lab.router.end_probe()
    main_path.plug_in(lab)
    since = lab.capture.mark()
    assert init.run("stop") == 0
    assert not init.running
    main_path.wait_for_goodbyes(lab, since)
    assert "bonjour: [Bonjour] default device name = T5140_00-11-22-AA-BB-CC\n" in init.log


def test_model_comes_from_the_one_variable(lab, init, root):
    (root / "etc/default/bonjour").write_text("MODEL=GLXE4700\n")
    init.start()
    lab.wait_for_packet(lambda packet: b"\x1aGLXE4700_00-11-22-AA-BB-CC\x05local" in packet.payload)
    init.run("stop")


def test_daemon_is_started_without_a_cache_of_stacks(lab, init, root):
    init.start()
    started = lab.router.sandbox.path("/proc/" + (root / "var/run/bonjour.pid").read_text().strip())
    environment = (started / "environ").read_bytes().split(b"\0")
    assert b"GLIBC_TUNABLES=glibc.pthread.stack_cache_size=0" in environment
    init.run("stop")


def test_second_start_leaves_the_running_daemon_alone(lab, init, root):
    init.start()
    pid = (root / "var/run/bonjour.pid").read_text()
    assert init.run("start") == 0
    assert (root / "var/run/bonjour.pid").read_text() == pid
    init.run("stop")


def test_restart_gives_a_new_daemon(lab, init, root):
    init.start()
    pid = (root / "var/run/bonjour.pid").read_text()
    assert init.run("restart") == 0
    assert (root / "var/run/bonjour.pid").read_text() != pid
    assert init.running
    init.run("stop")


@pytest.mark.lab(bridge=False)
def test_daemon_whose_bridge_never_came_up_is_killed_at_the_stop(lab, init):
    init.start()
    begun = time.monotonic()
    assert init.run("stop") == 0
    assert time.monotonic() - begun >= STOP_SECONDS
    assert not init.running


def test_stop_of_a_daemon_that_does_not_run_is_no_failure(init):
    assert init.run("stop") == 0
    assert init.run("status") == 3


def test_unknown_action_is_refused(init):
    assert init.run("reload") == 2
