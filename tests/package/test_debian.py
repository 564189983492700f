"""The Debian packages: their files in a root in which there is nothing else but BusyBox and the C
library, where the daemon runs, one package in the other's place, and their scripts."""

import os
import pathlib
import re
import stat
import subprocess

import pytest
from lab.daemon import stock_build
from responders import PATHS, RESPONDERS, with_both
from small_system import DAEMON, DEFAULTS, SCRIPT, SmallSystem, copy_libraries, files, lay_out
from small_system import write_program

SCRIPTS = pathlib.Path(__file__).resolve().parent.parent.parent / "packaging/debian"
SIZE_MAX = {"classic": 48 * 1024, "standard": 60 * 1024}
DROP_IN = "usr/lib/systemd/system/bonjour.service.d/standard.conf"
# Beside what test_install.py lists.
MANUALS = ["usr/share/man/man8/bonjour.8.gz", "usr/share/man/man8/bonjour-printers.8.gz"]


@pytest.fixture(scope="session")
def packages(tmp_path_factory):
    """The packages, which are made of the builds for a stock kernel."""
    made = {}
    for responder in RESPONDERS:
        directory = tmp_path_factory.mktemp(responder)
        config = stock_build(responder) / "CPackConfig.cmake"
        command = ["cpack", "--config", config, "-B", directory]
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
        (made[responder],) = directory.glob("*.deb")
    return made


@pytest.fixture
def root(packages, responder, tmp_path):
    """A small system with the package in it, as it lies on a router's flash."""
    target = tmp_path / "root"
    subprocess.run(["dpkg-deb", "-x", packages[responder], target], check=True)
    lay_out(target)
    copy_libraries(stock_build() / "bonjour", target)
    return target


@pytest.fixture
def system(lab, root):
    return SmallSystem(root, lab.router.sandbox, lab.router.network)


@with_both
def test_package_holds_what_a_router_needs(root, responder):
    found = files(root)
    assert (DROP_IN in found) == (responder == "standard")
    wanted = {DAEMON: 0o755, SCRIPT[1:]: 0o755, **dict.fromkeys(MANUALS, 0o644)}
    assert {**found, **wanted} == found
    assert (root / DAEMON).stat().st_size <= SIZE_MAX[responder]
    shown = subprocess.run(["readelf", "-d", root / DAEMON], capture_output=True, text=True)
    assert re.findall(r"NEEDED.*\[(.*)\]", shown.stdout) == ["libc.so.6"]


def wait_until_it_runs(system, *arguments):
    command = [f"/{DAEMON}", *arguments]
    system.wait_until(lambda: system.processes().get(system.pid) == command, command)


@with_both
def test_init_script_starts_the_daemon_and_stops_it_with_its_goodbyes(lab, system, responder):
    assert system.spawn("/bin/syslogd", "-O", "/var/log/messages").wait() == 0
    assert system.script("start") == 0
    lab.wait_for_packet(lambda packet: packet.is_query)
    lab.router.end_probe()
    PATHS[responder].plug_in(lab)
    since = lab.capture.mark()
    assert system.script("stop") == 0
    assert not system.running
    PATHS[responder].wait_for_goodbyes(lab, since)
    log = (system.root / "var/log/messages").read_text()
    assert "bonjour: [Bonjour] default device name = T5140_00-11-22-AA-BB-CC\n" in log


@pytest.mark.lab(bridge=False)
def test_model_and_limits_come_from_no_other_place(system):
    (system.root / DEFAULTS).write_text("")
    system.sh("MODEL=GLXE4700 MEMORY_LIMIT=65536 STACK_LIMIT=256 /etc/init.d/bonjour start")
    wait_until_it_runs(system)
    limits = system.of_process(system.pid, "limits").read_text()
    assert " 67108864 " not in limits and " 262144 " not in limits


# One package in the other's place

# Notes how it is called, and refuses the calls that /tmp/refused lists.
NOTING = """#!/bin/sh
echo "${0##*/} $*" >> /tmp/calls
! grep -qxF "${0##*/} $*" /tmp/refused
"""
# Starts and stops the daemon, as the real one does without systemd.
INVOKE_RC_D = '#!/bin/sh\nexec "/etc/init.d/$1" "$2"\n'


def run_dpkg(router, root, *words):
    """The real dpkg, whose root is a small system with hardly anything else."""
    command = ["dpkg", f"--root={root}", "--force-depends", "--log=/dev/null", *words]
    quiet = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL}
    assert router.sandbox.spawn(command, network=router.network, **quiet).wait() == 0


def own_files(root):
    return {name for name in files(root) if name.startswith(("etc", "usr", "var/run"))}


def test_each_package_takes_the_place_of_the_other(lab, packages, tmp_path):
    root = tmp_path / "root"
    lay_out(root)
    copy_libraries(stock_build() / "bonjour", root)
    for program in ("deb-systemd-helper", "update-rc.d"):
        write_program(root / "usr/bin" / program, NOTING)
    write_program(root / "usr/bin/invoke-rc.d", INVOKE_RC_D)
    for directory in ("etc", "var/lib/dpkg/info", "var/lib/dpkg/updates"):
        (root / directory).mkdir(parents=True)
    for name in ("tmp/refused", "var/lib/dpkg/status"):
        (root / name).touch()
    system = SmallSystem(root, lab.router.sandbox, lab.router.network)
    before = own_files(root)
    names = {"classic": "bonjour", "standard": "bonjour-standard"}
    model = "T5140"
    for responder in ("classic", "standard", "classic"):
        since = lab.capture.mark()
        run_dpkg(lab.router, root, "--install", packages[responder])
        if responder == "classic":
            lab.wait_for_packet(lambda packet: packet.is_query, since)
            lab.router.end_probe()
        # One daemon runs, with the settings as they were.
        wait_until_it_runs(system, model)
        assert system.programs().count("bonjour") == 1
        assert (root / DROP_IN).exists() == (responder == "standard")
        assert os.listdir(root / "usr/share/doc") == [names[responder]]
        model = "GLXE4700"
        settings = (root / DEFAULTS).read_text()
        (root / DEFAULTS).write_text(settings.replace("T5140", model))
    # What has given way may be purged.
    (root / "tmp/calls").unlink()
    run_dpkg(lab.router, root, "--purge", "bonjour-standard")
    assert not (root / "tmp/calls").exists()
    assert system.running
    assert "MODEL=GLXE4700\n" in (root / DEFAULTS).read_text()
    run_dpkg(lab.router, root, "--purge", "bonjour")
    assert own_files(root) == before
    system.wait_until(lambda: system.programs() == [], "the end of the daemon")


# The scripts, with programs around them that note how they are called

PROGRAMS = "deb-systemd-helper invoke-rc.d systemctl udevadm update-rc.d".split()
BRIDGE = "sys-subsystem-net-devices-br0.device"

WAS_ENABLED = "deb-systemd-helper --quiet was-enabled bonjour.service"
ENABLE = "deb-systemd-helper enable bonjour.service"
UPDATE = "deb-systemd-helper update-state bonjour.service"
FORGET = "deb-systemd-helper purge bonjour.service"
RELOAD = "systemctl --system daemon-reload"
TRIGGER = "udevadm trigger --subsystem-match=usbmisc"
LINKS = "update-rc.d bonjour defaults"
IS_THERE = f"systemctl --quiet is-active {BRIDGE}"
START = "invoke-rc.d bonjour start"
STOP = "invoke-rc.d bonjour stop"
RESTART = "invoke-rc.d bonjour restart"
RESET = "systemctl --quiet reset-failed bonjour.service"
UNDER_SYSTEMD = [RELOAD, TRIGGER, LINKS, IS_THERE]


@pytest.fixture
def scripts(tmp_path, sandbox):
    """A root with all of those programs and the init script; systemd and udev do not run."""
    root = tmp_path / "root"
    lay_out(root)
    for program in PROGRAMS:
        write_program(root / "usr/bin" / program, NOTING)
    write_program(root / SCRIPT[1:], "")
    for script in ("postinst", "prerm", "postrm"):
        write_program(root / script, (SCRIPTS / script).read_text())
    return SmallSystem(root, sandbox)


def run_systemd_and_udev(root):
    (root / "run/systemd/system").mkdir(parents=True)
    (root / "run/udev").mkdir()
    os.mknod(root / "run/udev/control", stat.S_IFSOCK | 0o600)


def call(scripts, words, refused=()):
    """The status of a script, and the calls that it made."""
    calls = scripts.root / "tmp/calls"
    calls.unlink(missing_ok=True)
    (scripts.root / "tmp/refused").write_text("".join(f"{line}\n" for line in refused))
    done = scripts.run(*words.split())
    assert (done.stdout, done.stderr) == ("", "")
    return done.returncode, calls.read_text().splitlines() if calls.exists() else []


@pytest.mark.parametrize(
    "words, refused, expected",
    [
        ("/postinst configure", [], [WAS_ENABLED, ENABLE, *UNDER_SYSTEMD, RESTART]),
        ("/postinst abort-remove", [], [WAS_ENABLED, ENABLE, *UNDER_SYSTEMD, START]),
        ("/postinst abort-upgrade", [], [WAS_ENABLED, ENABLE, *UNDER_SYSTEMD, START]),
        ("/postinst abort-deconfigure", [], [WAS_ENABLED, ENABLE, *UNDER_SYSTEMD, START]),
        ("/postinst triggered", [], []),
        # Without a bridge; disabled by the administrator, or when systemd's tools fail.
        ("/postinst configure", [IS_THERE], [WAS_ENABLED, ENABLE, *UNDER_SYSTEMD]),
        (
            "/postinst configure",
            [WAS_ENABLED, UPDATE, RELOAD, TRIGGER],
            [WAS_ENABLED, UPDATE, *UNDER_SYSTEMD, RESTART],
        ),
        ("/postinst configure", [ENABLE], [WAS_ENABLED, ENABLE, *UNDER_SYSTEMD, RESTART]),
        ("/prerm remove", [], [STOP]),
        ("/prerm deconfigure", [], [STOP]),
        ("/prerm upgrade", [], []),
        ("/postrm remove", [RELOAD, RESET], [RELOAD, RESET]),
        ("/postrm purge", [FORGET], ["update-rc.d bonjour remove", FORGET]),
        ("/postrm upgrade", [], []),
    ],
)
def test_calls_under_systemd(scripts, words, refused, expected):
    run_systemd_and_udev(scripts.root)
    assert call(scripts, words, refused) == (0, expected)


@pytest.mark.parametrize("status", [0, 1])
def test_calls_without_systemd_the_last_of_which_decides(scripts, status):
    configure = [WAS_ENABLED, ENABLE, LINKS, RESTART]
    for words, expected in (("/postinst configure", configure), ("/prerm remove", [STOP])):
        assert call(scripts, words, expected[-1:] * status) == (status, expected), words


def test_nothing_is_called_that_is_not_there(scripts):
    for program in PROGRAMS:
        (scripts.root / "usr/bin" / program).unlink()
    for words in ("/postinst configure", "/prerm remove", "/postrm remove", "/postrm purge"):
        assert call(scripts, words) == (0, []), words


def test_package_whose_init_script_was_deleted_can_be_removed(scripts):
    (scripts.root / SCRIPT[1:]).unlink()
    assert call(scripts, "/prerm remove") == (0, [])
    run_systemd_and_udev(scripts.root)
    assert call(scripts, "/prerm remove") == (0, [STOP])


@pytest.mark.parametrize("others", [[], ["other.service"]])
def test_bridge_no_longer_requires_the_daemon(scripts, others):
    """What versions before this one have left when they were enabled."""
    required = scripts.root / f"etc/systemd/system/{BRIDGE}.requires"
    required.mkdir(parents=True)
    for unit in ("bonjour.service", *others):
        (required / unit).symlink_to(f"/lib/systemd/system/{unit}")
    status, calls = call(scripts, "/postinst configure", [FORGET])
    assert (status, calls[:3]) == (0, [FORGET, WAS_ENABLED, ENABLE])
    assert required.exists() == bool(others)
    assert not others or os.listdir(required) == others
