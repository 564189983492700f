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
NOBODY = "65534"
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

# Becomes a program that makes these calls alone, and sockets of these families alone.
CONFINE = """
import errno, os, seccomp, socket, sys
calls, families, *command = sys.argv[1:]
allowed = seccomp.SyscallFilter(defaction=seccomp.ERRNO(errno.EPERM))
for call in calls.split(","):
    if seccomp.resolve_syscall(seccomp.Arch(), call) < 0:
        continue  # another CPU's
    if call != "socket":
        allowed.add_rule(seccomp.ALLOW, call)
        continue
    for family in families.split(","):
        number = getattr(socket, family)
        allowed.add_rule(seccomp.ALLOW, call, seccomp.Arg(0, seccomp.EQ, number))
allowed.load()
os.execv(command[0], command)
"""


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


def as_user_of_its_own(*capabilities):
    kept = ",".join(["-all", *(f"+{name}" for name in capabilities)])
    return [
        *("setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--groups=lp", "--no-new-privs"),
        *(f"--inh-caps={kept}", f"--ambient-caps={kept}", f"--bounding-set={kept}"),
    ]


def under_the_filter(responder):
    families = setting(responder, "RestrictAddressFamilies").replace(" ", ",")
    calls = ",".join(sorted(allowed_calls(responder)))
    return ["/usr/bin/python3", "-c", CONFINE, calls, families]


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
@pytest.mark.parametrize("capabilities", [["net_raw"], []], ids=["the unit's", "none"])
def test_main_path_with_the_rights_of_the_unit(lab, responder, capabilities):
    """On kernels from 5.7 on, even the one capability is not needed."""
    wrapper = [*as_user_of_its_own(*capabilities), *under_the_filter(responder)]
    PATHS[responder].check(lab, wrapper)


@with_both
def test_device_id_is_read_under_the_filter_without_any_capability(lab, responder):
    # The lab's device node answers its owner only, root; a printer's node is the group lp's.
    no_rights = ["setpriv", "--inh-caps=-all", "--bounding-set=-all", "--no-new-privs"]
    lab.router.connect_device(0, "MFG:HP;MODEL:Model 12;CMD:PJL,PCL;")
    lab.router.plug_in(0, model="")
    lab.router.start(wrapper=[*no_rights, *under_the_filter(responder)])
    lab.wait_for_packet(lambda packet: b"\x0bty=Model 12" in packet.payload, count=2)


@with_both
def test_calls_of_the_main_path_are_all_documented_and_allowed(lab, tmp_path, responder):
    tracing = ["strace", "-D", "-f", "-qq", "-e", "signal=none", "-o", tmp_path / "calls"]
    PATHS[responder].check(lab, tracing)
    trace = (tmp_path / "calls").read_text()
    called = set(re.findall(r"^\d+ +(?:<\.\.\. )?([a-z]\w*)[( ]", trace, re.MULTILINE))
    assert {"sendto", "ioctl"} < called
    # The kernel goes on so with a pause that a stopped daemon was in.
    called.add("restart_syscall")
    assert called - set(re.findall(r"`([a-z]\w+)`", NOTES.read_text())) == set()
    assert called - allowed_calls(responder) == set()
