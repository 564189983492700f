"""The daemon does its job with just what the packaged systemd unit leaves it."""

import json
import pathlib
import re
import shutil
import signal
import subprocess

import main_path
import pytest
from lab.daemon import binary

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
UNIT = ROOT / "packaging/bonjour.service.in"
NOTES = ROOT / "docs/least-privilege.md"
CONFINE = pathlib.Path(__file__).with_name("confine.py")
NOBODY = "65534"
PRINTERS = "lp"
INSIDE = "/dev/.bonjour"


def unit(setting):
    """The words of this setting of the unit, of all the lines that it is given in."""
    lines = re.findall(rf"^{setting}=(.*)$", UNIT.read_text(), re.MULTILINE)
    return " ".join(lines).split()


def allowed_calls():
    """The calls that the unit lets through, with its groups of calls resolved by systemd."""
    names = set()
    for word in unit("SystemCallFilter"):
        if word.startswith("@"):
            shown = subprocess.run(
                ["systemd-analyze", "syscall-filter", word],
                capture_output=True,
                text=True,
                check=True,
            )
            names.update(re.findall(r"^ +([a-z]\w*)$", shown.stdout, re.MULTILINE))
        else:
            names.add(word)
    return names


def as_user_of_its_own(capabilities):
    kept = "".join(f",+{name}" for name in capabilities)
    return [
        *("setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", f"--groups={PRINTERS}"),
        f"--inh-caps=-all{kept}",
        f"--ambient-caps=-all{kept}",
        *(f"--bounding-set=-all{kept}", "--no-new-privs"),
    ]


def under_the_filter():
    return ["/usr/bin/python3", "-c", CONFINE.read_text(), ",".join(sorted(allowed_calls()))]


@pytest.fixture
def lab(lab, monkeypatch):
    # Where a user without any right on the build's directories finds the daemon.
    shutil.copy(binary(), lab.router.sandbox.path(INSIDE))
    monkeypatch.setenv("BONJOUR", INSIDE)
    return lab


def test_unit_starts_the_daemon_anew_whatever_made_it_end():
    """Its exit status is always 0."""
    assert unit("Restart") == ["always"]
    assert unit("RestartSec") == ["5"]


def test_unit_kills_a_daemon_only_when_its_goodbyes_are_out():
    assert unit("TimeoutStopSec") == ["5"]


def test_unit_does_not_limit_the_number_of_threads():
    assert unit("TasksMax") == ["infinity"]


def test_unit_needs_the_bridge_and_the_bridge_does_not_need_it():
    bridge = "sys-subsystem-net-devices-br0.device"
    assert unit("Requires") == unit("WantedBy") == [bridge]
    assert unit("After") == [bridge, "network.target"]
    # A stop that the bridge brings about is not followed by a start when the bridge comes back.
    assert unit("BindsTo") == unit("PartOf") == []
    # Something else requires or upholds what follows these, and a daemon that was stopped stays so.
    assert unit("RequiredBy") == unit("UpheldBy") == unit("Also") == []
    assert unit("StartLimitIntervalSec") == ["0"]


def test_unit_keeps_one_capability():
    assert unit("CapabilityBoundingSet") == unit("AmbientCapabilities") == ["CAP_NET_RAW"]
    assert unit("SupplementaryGroups") == [PRINTERS]


def test_systemd_finds_the_daemon_exposed_to_no_more_than_it_needs(tmp_path):
    made = tmp_path / "bonjour.service"
    made.write_text(UNIT.read_text().replace("@BONJOUR_DAEMON@", "/usr/sbin/bonjour"))
    shown = subprocess.run(
        ["systemd-analyze", "security", "--offline=true", "--json=short", made],
        capture_output=True,
        text=True,
        check=True,
    )
    found = json.loads(shown.stdout)
    # One of the names ends in a parenthesis that nothing opens.
    exposed = {check["json_field"].rstrip(")") for check in found if check["exposure"]}
    assert exposed == {
        *("PrivateNetwork", "IPAddressDeny", "RestrictAddressFamilies_AF_INET_INET6"),
        *("CapabilityBoundingSet_CAP_NET_BIND_SERVICE_BROADCAST_RAW", "AmbientCapabilities"),
        *("PrivateUsers", "SupplementaryGroups", "PrivateDevices", "DeviceAllow"),
        *("ProcSubset", "RootDirectoryOrRootImage", "PrivateMounts"),
    }


def test_unit_lets_the_daemon_have_printers_and_its_settings():
    assert unit("DevicePolicy") == ["closed"]
    assert unit("DeviceAllow") == ["char-usb", "rw"]
    assert unit("EnvironmentFile") == ["-/etc/default/bonjour"]
    # It goes on when a call is refused.
    assert unit("SystemCallErrorNumber") == ["EPERM"]


@pytest.mark.parametrize("capabilities", [["net_raw"], []], ids=["the unit's", "none"])
def test_main_path_with_the_rights_of_the_unit(lab, capabilities):
    """On kernels from 5.7 on, even the one capability is not needed."""
    sent, lines = main_path.walk(lab, [*as_user_of_its_own(capabilities), *under_the_filter()])
    assert sent == main_path.PACKETS
    assert lines == main_path.LINES


def test_confined_daemon_has_the_rights_of_the_unit_and_no_more(lab):
    daemon = lab.router.start(
        wrapper=[*as_user_of_its_own(["net_raw"]), *under_the_filter()], ready=False
    )
    daemon.wait_for_line("[Bonjour] Interface: br0 is connected")
    status = pathlib.Path(f"/proc/{daemon.pid}/status").read_text()
    fields = dict(line.split(":\t", 1) for line in status.splitlines())
    net_raw = "0000000000002000"
    for field in ("CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb"):
        assert fields[field] == net_raw, field
    assert fields["NoNewPrivs"] == "1"
    assert fields["Seccomp"] == "2"
    assert fields["Uid"].split() == [NOBODY] * 4


def test_device_id_is_read_under_the_filter_without_any_capability(lab):
    # The lab's device node answers its owner only, root; a printer's node is the group lp's.
    no_rights = ["setpriv", "--inh-caps=-all", "--bounding-set=-all", "--no-new-privs"]
    router = lab.router
    router.start("T5140", wrapper=[*no_rights, *under_the_filter()])
    router.connect_device(0, "MFG:HP;MODEL:Model 12;CMD:PJL,PCL;")
    router.plug_in(0, model="")
    lab.wait_for_packet(lambda packet: b"\x0bty=Model 12" in packet.payload, count=6)
    router.pull_out(0)
    router.stop()


@pytest.fixture
def trace(tmp_path):
    return tmp_path / "calls"


def traced(trace):
    return ["strace", "-D", "-f", "-qq", "-e", "signal=none", "-o", str(trace)]


def calls(trace):
    """The names of the calls in a trace, all of which are documented and allowed."""
    called = set(re.findall(r"^\d+ +(?:<\.\.\. )?([a-z]\w*)[( ]", trace.read_text(), re.MULTILINE))
    assert called - set(re.findall(r"`([a-z]\w+)`", NOTES.read_text())) == set()
    assert called - allowed_calls() == set()
    return called


def test_calls_of_the_main_path_are_all_documented_and_allowed(lab, trace):
    main_path.walk(lab, traced(trace))
    assert {"recvfrom", "sendto", "ioctl"} <= calls(trace)


def test_calls_of_a_daemon_that_was_stopped_and_goes_on_are_documented_and_allowed(lab, trace):
    """The kernel goes on with a pause that was interrupted so by a call of its own."""
    daemon = lab.router.start(wrapper=traced(trace))
    status = pathlib.Path(f"/proc/{daemon.pid}/status")

    def stopped():
        return re.search(r"^State:\s[Tt]", status.read_text(), re.MULTILINE)

    def went_on_with_a_pause():
        daemon.signal(signal.SIGSTOP)
        daemon.wait_until(stopped, "the daemon is stopped")
        daemon.signal(signal.SIGCONT)
        daemon.wait_until(lambda: not stopped(), "the daemon goes on")
        return "restart_syscall" in trace.read_text()

    daemon.wait_until(went_on_with_a_pause, "a pause is interrupted")
    main_path.plug_in(lab)
    lab.router.stop()
    assert "restart_syscall" in calls(trace)
