"""The daemon does its job with just what the packaged systemd unit leaves it."""

import json
import pathlib
import re
import shutil
import subprocess

import pytest
from lab.daemon import binary
from responders import PATHS, with_both

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
UNIT = ROOT / "packaging/bonjour.service.in"
DROP_IN = ROOT / "packaging/standard/bonjour.service.conf"
NOTES = ROOT / "docs/least-privilege.md"
INSIDE = "/dev/.bonjour"
# What no test on a booted machine holds.
SETTINGS = {
    "RestartSec": "5",
    # Its goodbyes are out by then.
    "TimeoutStopSec": "5",
    "TasksMax": "infinity",
    "EnvironmentFile": "-/etc/default/bonjour",
    # It goes on when a call is refused.
    "SystemCallErrorNumber": "EPERM",
}
EXPOSED = {
    *("PrivateNetwork", "IPAddressDeny", "RestrictAddressFamilies_AF_INET_INET6"),
    *("CapabilityBoundingSet_CAP_NET_BIND_SERVICE_BROADCAST_RAW", "AmbientCapabilities"),
    *("PrivateUsers", "SupplementaryGroups", "PrivateDevices", "DeviceAllow"),
    *("ProcSubset", "RootDirectoryOrRootImage", "PrivateMounts"),
}


def unit(responder):
    """The text of the unit, with what is added to it for that responder."""
    return UNIT.read_text() + (DROP_IN.read_text() if responder == "standard" else "")


def setting(responder, name):
    """The words of a setting, of all the lines that it is given in."""
    return " ".join(re.findall(rf"^{name}=(.*)$", unit(responder), re.MULTILINE))


def allowed_calls(responder):
    """The calls that the unit lets through, with its groups of calls resolved by systemd."""
    names = set()
    for word in setting(responder, "SystemCallFilter").split():
        if word.startswith("@"):
            command = ["systemd-analyze", "syscall-filter", word]
            shown = subprocess.run(command, capture_output=True, text=True, check=True)
            names.update(re.findall(r"^ +([a-z]\w*)$", shown.stdout, re.MULTILINE))
        else:
            names.add(word)
    return names


@pytest.fixture
def lab(lab):
    # Where a user without any right on the build's directories finds the daemon.
    program = lab.router.program or binary()
    shutil.copy(program, lab.router.sandbox.path(INSIDE))
    lab.router.program = INSIDE
    return lab


def test_unit_has_these_settings():
    assert {name: setting("classic", name) for name in SETTINGS} == SETTINGS


@with_both
def test_systemd_finds_the_daemon_exposed_to_no_more_than_it_needs(tmp_path, responder):
    made = tmp_path / "bonjour.service"
    made.write_text(unit(responder).replace("@BONJOUR_DAEMON@", "/usr/sbin/bonjour"))
    command = ["systemd-analyze", "security", "--offline=true", "--json=short", made]
    shown = subprocess.run(command, capture_output=True, text=True, check=True)
    # One of the names ends in a parenthesis that nothing opens.
    rated = json.loads(shown.stdout)
    found = {each["json_field"].rstrip(")") for each in rated if each["exposure"]}
    netlink = {"RestrictAddressFamilies_AF_NETLINK"} if responder == "standard" else set()
    assert found == EXPOSED | netlink


@with_both
@pytest.mark.parametrize("capabilities", [",+net_raw", ""], ids=["the unit's", "none"])
def test_main_path_takes_no_more_than_the_unit_leaves(lab, tmp_path, responder, capabilities):
    """On kernels from 5.7 on, even the one capability is not needed."""
    calls = tmp_path / "calls"
    wrapper = ["strace", "-D", "-f", "-qq", "-e", "signal=none", "-o", calls]
    wrapper += ["setpriv", "--reuid=nobody", "--regid=nogroup", "--groups=lp", "--no-new-privs"]
    for option in ("inh-caps", "ambient-caps", "bounding-set"):
        wrapper.append(f"--{option}=-all{capabilities}")
    PATHS[responder].check(lab, wrapper)
    _, trace = calls.read_text().split(f'execve("{INSIDE}", ')
    called = set(re.findall(r"^\d+ +(?:<\.\.\. )?([a-z]\w*)[( ]", trace, re.MULTILINE))
    assert {"sendto", "ioctl"} < called
    # The kernel goes on so with a pause that a stopped daemon was in.
    called.add("restart_syscall")
    assert called - set(re.findall(r"`([a-z]\w+)`", NOTES.read_text())) == set()
    assert called - allowed_calls(responder) == set()
    families = set(re.findall(r" socket\((AF_\w+)", trace))
    assert families == set(setting(responder, "RestrictAddressFamilies").split())
