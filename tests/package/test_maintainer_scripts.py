"""The Debian package's scripts, with programs around them that note how they are called."""

import os
import pathlib
import stat

import pytest
from small_system import SCRIPT, SmallSystem, lay_out

SCRIPTS = pathlib.Path(__file__).resolve().parent.parent.parent / "packaging/debian"
PROGRAMS = "deb-systemd-helper invoke-rc.d systemctl udevadm update-rc.d".split()
# Refuses the calls that /tmp/refused lists.
NOTING = """#!/bin/sh
echo "${0##*/} $*" >> /tmp/calls
! grep -qxF "${0##*/} $*" /tmp/refused
"""
REQUIRED = "etc/systemd/system/sys-subsystem-net-devices-br0.device.requires"

WAS_ENABLED = "deb-systemd-helper --quiet was-enabled bonjour.service"
ENABLE = "deb-systemd-helper enable bonjour.service"
UPDATE = "deb-systemd-helper update-state bonjour.service"
FORGET = "deb-systemd-helper purge bonjour.service"
RELOAD = "systemctl --system daemon-reload"
TRIGGER = "udevadm trigger --subsystem-match=usbmisc"
DEFAULTS = "update-rc.d bonjour defaults"
IS_THERE = "systemctl --quiet is-active sys-subsystem-net-devices-br0.device"
START = "invoke-rc.d bonjour start"
STOP = "invoke-rc.d bonjour stop"
RESTART = "invoke-rc.d bonjour restart"
RESET = "systemctl --quiet reset-failed bonjour.service"


@pytest.fixture
def system(tmp_path, sandbox):
    """A root with all of those programs, the init script and what a daemon has left; systemd and
    udev do not run."""
    root = tmp_path / "root"
    lay_out(root)
    for folder in ("etc/init.d", "usr/bin", "run", "var/run/bonjour"):
        (root / folder).mkdir(parents=True)
    for program in PROGRAMS:
        write_program(root / "usr/bin" / program, NOTING)
    write_program(root / SCRIPT[1:], "")
    for left in ("bonjour.lock", "bonjour/printer_status"):
        (root / "var/run" / left).touch()
    for script in ("postinst", "prerm", "postrm"):
        write_program(root / script, (SCRIPTS / script).read_text())
    return SmallSystem(root, sandbox)


def write_program(path, text):
    path.write_text(text)
    path.chmod(0o755)


def run_systemd_and_udev(root):
    (root / "run/systemd/system").mkdir(parents=True)
    (root / "run/udev").mkdir()
    os.mknod(root / "run/udev/control", stat.S_IFSOCK | 0o600)


def call(system, *words, refused=()):
    """The status of a script, and the calls that it made."""
    calls = system.root / "tmp/calls"
    calls.unlink(missing_ok=True)
    (system.root / "tmp/refused").write_text("".join(f"{line}\n" for line in refused))
    done = system.run(*words)
    assert (done.stdout, done.stderr) == ("", "")
    return done.returncode, calls.read_text().splitlines() if calls.exists() else []


SYSTEMD = [RELOAD, TRIGGER, DEFAULTS, IS_THERE]


@pytest.mark.parametrize(
    "words, refused, expected",
    [
        ("/postinst configure", [], [WAS_ENABLED, ENABLE, *SYSTEMD, RESTART]),
        ("/postinst abort-remove", [], [WAS_ENABLED, ENABLE, *SYSTEMD, START]),
        ("/postinst abort-upgrade", [], [WAS_ENABLED, ENABLE, *SYSTEMD, START]),
        ("/postinst abort-deconfigure", [], [WAS_ENABLED, ENABLE, *SYSTEMD, START]),
        ("/postinst triggered", [], []),
        # Disabled by the administrator; without a bridge; when systemd's tools fail.
        ("/postinst configure", [WAS_ENABLED], [WAS_ENABLED, UPDATE, *SYSTEMD, RESTART]),
        ("/postinst configure", [IS_THERE], [WAS_ENABLED, ENABLE, *SYSTEMD]),
        (
            "/postinst configure",
            [ENABLE, RELOAD, TRIGGER],
            [WAS_ENABLED, ENABLE, *SYSTEMD, RESTART],
        ),
        (
            "/postinst configure",
            [WAS_ENABLED, UPDATE],
            [WAS_ENABLED, UPDATE, *SYSTEMD, RESTART],
        ),
        ("/prerm remove", [], [STOP]),
        ("/prerm deconfigure", [], [STOP]),
        ("/prerm upgrade", [], []),
        ("/postrm remove", [RELOAD, RESET], [RELOAD, RESET]),
        ("/postrm purge", [FORGET], ["update-rc.d bonjour remove", FORGET]),
        ("/postrm upgrade", [], []),
    ],
)
def test_calls_under_systemd(system, words, refused, expected):
    run_systemd_and_udev(system.root)
    assert call(system, *words.split(), refused=refused) == (0, expected)


@pytest.mark.parametrize(
    "words, expected",
    [
        ("/postinst configure", [WAS_ENABLED, ENABLE, DEFAULTS, RESTART]),
        ("/postinst abort-remove", [WAS_ENABLED, ENABLE, DEFAULTS, START]),
        ("/prerm remove", [STOP]),
        ("/postrm remove", []),
    ],
)
def test_calls_without_systemd(system, words, expected):
    assert call(system, *words.split()) == (0, expected)


@pytest.mark.parametrize("words, last", [("/postinst configure", RESTART), ("/prerm remove", STOP)])
def test_daemon_that_cannot_be_started_or_stopped_is_a_failure(system, words, last):
    status, calls = call(system, *words.split(), refused=[last])
    assert (status, calls[-1]) == (1, last)


def test_nothing_is_called_that_is_not_there(system):
    for program in PROGRAMS:
        (system.root / "usr/bin" / program).unlink()
    for script in ("/postinst configure", "/prerm remove", "/postrm remove", "/postrm purge"):
        assert call(system, *script.split()) == (0, []), script


def test_package_whose_init_script_was_deleted_can_be_removed(system):
    (system.root / SCRIPT[1:]).unlink()
    assert call(system, "/prerm", "remove") == (0, [])
    run_systemd_and_udev(system.root)
    assert call(system, "/prerm", "remove") == (0, [STOP])


def test_removal_leaves_nothing_in_run(system):
    assert call(system, "/postrm", "upgrade") == (0, [])
    assert sorted(os.listdir(system.root / "var/run")) == ["bonjour", "bonjour.lock"]
    assert call(system, "/postrm", "remove") == (0, [])
    assert os.listdir(system.root / "var/run") == []


@pytest.mark.parametrize("others", [[], ["other.service"]])
def test_bridge_no_longer_requires_the_daemon(system, others):
    """What versions before this one have left when they were enabled."""
    required = system.root / REQUIRED
    required.mkdir(parents=True)
    for unit in ("bonjour.service", *others):
        (required / unit).symlink_to(f"/lib/systemd/system/{unit}")
    status, calls = call(system, "/postinst", "configure", refused=[FORGET])
    assert (status, calls[:3]) == (0, [FORGET, WAS_ENABLED, ENABLE])
    assert required.exists() == bool(others)
    assert not others or os.listdir(required) == others
