"""A router from its boot to its end: the installed package, a real kernel and its USB driver."""

import json
import pathlib
import re
import subprocess
import time

import pytest
import wire

from lab import packets
from lab.browser import IPP, RAW
from lab.demo import is_goodbye
from lab.flooding import BROWSE_QUESTION, start_flood
from lab.lab import MAC, TRANSMISSIONS
from lab.printers import Printer
from lab.vm.router import STICK, device_id
from lab.waiting import wait_until

HP = device_id(Printer(0))
UNIVERSAL = "_universal._sub._ipp._tcp.local"
STATUS_FILE = "/var/run/bonjour/printer_status"
NO_UPDATE = "! cat /proc/[0-9]*/cmdline 2> /dev/null | tr '\\0' ' ' | grep -q '[b]onjour-printers'"
RECORD = "usblp0\nHP\nModel 12\nPJL,PCL\n\n"
PUBLISHED = (wire.PDL_PROBE, wire.PDL_RECORDS, wire.IPP_PROBE, wire.IPP_RECORDS)
WITHDRAWN = (wire.PDL_GOODBYE, wire.IPP_GOODBYE)
FIRST_DEVICE = "/sys/bus/usb/devices/1-1"
SERVICES = 2
LASTING_THREADS = 4
BRIDGE_ANEW = {
    "busybox": "/etc/init.d/network restart",
    "debian": "ip link del br0; systemctl restart systemd-networkd",
}
# With the lines for inittab init starts another one.
RESTART = {"busybox": "/etc/init.d/bonjour stop", "debian": "systemctl restart bonjour"}
NET_RAW = "0000000000002000"
INSTALL = "dpkg -i /root/bonjour.deb"
BRIDGE = "sys-subsystem-net-devices-br0.device"
# A service that ends with the bridge and that the bridge starts.
BOUND = f"[Unit]\\nBindsTo={BRIDGE}\\nAfter={BRIDGE}\\n[Service]\\nExecStart=/bin/sleep 3600\\n"
BOUND += f"[Install]\\nWantedBy={BRIDGE}\\n"
ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
FLOOD_SECONDS = 10
LOOK_SECONDS = 0.25
BOOT_BOUND = 60.0
RESPAWN_BOUND = 20.0


def wait_for_packets(lab, wanted, since, bound=10.0):
    for packet in wanted:
        lab.wait_for_packet(packet, since, TRANSMISSIONS, bound)


def wait_for_start(lab, since, bound):
    """Waits until the daemon has probed for its name and published its printer."""
    # The bridge's port may not be up yet when the first probes are sent.
    lab.wait_for_packet(wire.HOST_PROBE, since, bound=bound)
    wait_for_packets(lab, PUBLISHED, since, bound)


def wait_for_services(lab, names, since):
    """Waits until these services, and no others, are announced three times, of both kinds."""
    count = len(names) * SERVICES * TRANSMISSIONS
    announced = lab.wait_for_packet(lambda packet: not packet.is_query, since, count, 30)
    expected = {f"{name}.{rrtype}" for name in names for rrtype in (IPP, RAW)}
    assert {packet.message.answers[1].data for packet in announced} == expected


def present(machine):
    """The printers that the daemon that runs has published and not withdrawn."""
    ports = set()
    for text in machine.log.texts():
        if text.startswith("[QX] "):
            ports.clear()
        elif changed := re.fullmatch(r"\[Bonjour\] device (insert|remove) lp(\d)", text):
            (ports.add if changed[1] == "insert" else ports.discard)(int(changed[2]))
    return ports


def wait_until_present(machine, *ports):
    wait_until(lambda: present(machine) == set(ports), f"printers {ports}")


def wait_until_quiet(machine):
    """Waits until the daemon sends nothing."""
    machine.wait_until(f"[ $(ls /proc/{pid(machine)}/task | wc -l) = {LASTING_THREADS} ]")


def pid(machine):
    return int(machine.run("pidof bonjour"))


def write_status_file(machine, text):
    """By hand, as a vendor's kernel would, and after what a rule has begun to write."""
    machine.wait_until(NO_UPDATE)
    lines = text.replace("\n", "\\n")
    machine.run(f"printf '{lines}' > {STATUS_FILE}.new && mv {STATUS_FILE}.new {STATUS_FILE}")


@pytest.fixture(autouse=True)
def kept(request, lab):
    """What is kept of a failed test."""
    failures = request.session.testsfailed
    yield
    if request.session.testsfailed == failures:
        lab.check_packets()
    else:
        kept = ROOT / "build/lab-failures" / request.node.name
        lab.keep(kept)
        print(f"packets and log are kept in {kept}")
        print(lab.timeline())


@pytest.fixture
def empty(lab, machine):
    """The machine without its printer; after the test it has it again, as before."""
    since = lab.capture.mark()
    machine.pull_out(0)
    wait_for_packets(lab, WITHDRAWN, since)
    yield machine
    machine.pull_all_out()
    machine.wait_until("! ls /sys/class/usbmisc | grep -q lp")
    machine.wait_until(f"[ ! -s {STATUS_FILE} ]")
    wait_until_present(machine)
    wait_until_quiet(machine)
    since = lab.capture.mark()
    machine.plug_in(0, HP)
    wait_for_packets(lab, PUBLISHED, since)


def test_boot_ends_with_the_printer_published_and_no_hand_moved(request, lab):
    wait_for_start(lab, 0, BOOT_BOUND)
    print()
    for what, packet in (("probed", wire.HOST_PROBE), ("published", wire.IPP_RECORDS)):
        seconds = lab.wait_for_packet(packet)[0].time - lab.router.switched_on
        print(f"{request.node.callspec.id}: {what} {seconds:.1f} s after it was switched on")


def test_stick_that_was_mounted_before_the_daemon_is_free_when_unmounted(lab, machine):
    """What was written is on it, and nothing is left in its journal."""
    machine.run(f"echo letter > {STICK}/letter && umount {STICK}")
    shown = subprocess.run(["debugfs", lab.router.stick, "-R", "cat letter"], capture_output=True)
    assert shown.stdout == b"letter\n"
    features = subprocess.run(["dumpe2fs", "-h", lab.router.stick], capture_output=True).stdout
    assert b"has_journal" in features and b"needs_recovery" not in features
    disk = {"busybox": "/dev/vda", "debian": "/dev/vdb"}[lab.router.kind.system]
    # Only a disk that nobody holds is had for oneself.
    machine.run(f"mount -o ro {disk} {STICK} && grep -q letter {STICK}/letter && umount {STICK}")


def test_package_kernel_and_bridge_are_as_they_should_be(machine):
    assert machine.run(f"readlink /proc/{pid(machine)}/exe") == "/usr/sbin/bonjour\n"
    assert machine.run("cat /sys/class/usbmisc/lp0/device/ieee1284_id") == HP.decode()
    assert machine.run(f"cat {STATUS_FILE}") == RECORD
    node = "character special file b4:0 lp 660\n"
    assert machine.run("stat -c '%F %t:%T %G %a' /dev/usb/lp0") == node
    assert machine.run("cat /sys/class/net/br0/bridge/multicast_snooping") == "1\n"


def test_questions_are_answered_as_on_any_router(lab):
    assert lab.ask(BROWSE_QUESTION) == [wire.IPP_RECORDS]
    assert lab.ask(packets.query((UNIVERSAL, "PTR"))) == [wire.IPP_RECORDS]
    assert lab.ask(packets.query((RAW, "PTR"))) == [wire.PDL_RECORDS]
    assert lab.ask(wire.HOST_QUESTION) == [wire.HOST_ANSWER]


def test_printers_that_swap_ports_are_published_under_their_own_names(lab, empty):
    """lp0 goes and comes as another printer before the daemon looks again."""
    other = b"MFG:Acme;MDL:Jet;CMD:PCL;"
    empty.plug_in(0, HP)
    wait_until_present(empty, 0)
    wait_until_quiet(empty)
    since = lab.capture.mark()
    empty.pull_out(0)
    empty.plug_in(1, other)
    lab.wait_for_packet(is_goodbye, since, SERVICES * TRANSMISSIONS, 30)
    wait_until_present(empty, 0)
    lab.wait_for_packet(
        lambda packet: not packet.is_query and b"\x06ty=Jet" in packet.payload,
        since,
        TRANSMISSIONS,
        30,
    )


def test_ten_printers_are_published_and_an_eleventh_gets_a_line(lab, empty):
    since, lines = lab.capture.mark(), empty.log.mark()
    for port in range(11):
        empty.plug_in(port, HP)
    empty.log.wait_for_line(
        "bonjour-printers: lp10: port above 9, not published", since=lines, bound=30
    )
    wait_for_services(lab, [f"HP Model 12 (aa:bb:cc) {number}" for number in range(10)], since)
    since = lab.capture.mark()
    empty.pull_all_out()
    lab.wait_for_packet(is_goodbye, since, 10 * SERVICES * TRANSMISSIONS, 30)


def test_long_and_hostile_ids_are_published_well_formed_and_a_missing_one_gets_a_line(lab, empty):
    ids = {
        b"MFG:" + b"A" * 480 + b";MDL:" + b"B" * 510 + b";": "A" * 15 + " " + "B" * 34,
        b"MFG:A;MDL:B\nusblp0\r\x07\x1b[2J;CMD:\nusblp1": "A B usb_lp0   [2J",
        b"MFG:$(reboot);MDL:`reboot`\\n%s.;CMD:'\"": "$(reboot) `reboot`\\n%s_",
    }
    since, lines = lab.capture.mark(), empty.log.mark()
    for port, hostile in enumerate([*ids, None]):
        empty.plug_in(port, hostile)
        empty.wait_until(f"[ -e /sys/class/usbmisc/lp{port} ]")
    names = [f"{name} (aa:bb:cc) {port}" for port, name in enumerate(ids.values())]
    wait_for_services(lab, names, since)
    empty.log.wait_for_line("bonjour-printers: lp3: no device id, not published", since=lines)


def test_printer_pulled_out_while_the_driver_asks_for_its_id(lab, empty):
    gone = empty.plug_in(0, HP, held=True)
    gone.wait_until_asked()
    empty.pull_out(0)
    empty.wait_until(f"[ ! -e {FIRST_DEVICE} ]")
    since = lab.capture.mark()
    empty.plug_in(1, HP)
    wait_for_services(lab, ["HP Model 12 (aa:bb:cc) 0"], since)


@pytest.fixture
def unlisted(empty):
    """A printer in the machine that the status file doesn't name."""
    # As a vendor's kernel names it.
    empty.run("ln -sf usb/lp0 /dev/usblp0")
    printer = empty.plug_in(0, b"MFG:Acme;MODEL:Of the driver;")
    wait_until_present(empty, 0)
    write_status_file(empty, "")
    wait_until_present(empty)
    wait_until_quiet(empty)
    return printer


def test_model_that_only_the_device_id_has_is_asked_of_the_driver(lab, empty, unlisted):
    since = lab.capture.mark()
    write_status_file(empty, "usblp0\nHP\n\nPJL,PCL\n\n")
    wait_for_services(lab, ["HP  (aa:bb:cc) 0"], since)
    assert all(
        "ty=Of the driver" in packet.message.answers[3].data
        for packet in lab.sent(since)
        if not packet.is_query
    )


def test_printer_pulled_out_while_the_daemon_asks_for_its_id(lab, empty, unlisted):
    unlisted.hold_device_id()
    lines = empty.log.mark()
    write_status_file(empty, "usblp0\nHP\n\nPJL,PCL\n\n")
    unlisted.wait_until_asked()
    # A printer that is silent keeps nobody waiting for an answer.
    assert lab.ask(wire.HOST_QUESTION) == [wire.HOST_ANSWER]
    empty.pull_out(0)
    empty.log.wait_for_line(
        re.compile(r"\[Bonjour\] ioctl printer failed: .*"), since=lines, bound=20
    )
    empty.log.wait_for_line("[Bonjour] device remove lp0", since=lines, bound=20)


def memory(machine):
    """Threads of the daemon and KiB of its memory, of all kernel stacks, of slab, and of what is
    left."""
    text = machine.run(f"cat /proc/{pid(machine)}/status /proc/meminfo")
    fields = dict(re.findall(r"^(\w+):\s+(\d+)", text, re.MULTILINE))
    names = ("Threads", "RssAnon", "KernelStack", "Slab", "MemAvailable")
    return {name: int(fields[name]) for name in names}


@pytest.mark.kinds("armhf", "mipsel")
@pytest.mark.parametrize("rate", [500, 5000])
def test_flood_kills_nothing_and_everything_answers_behind_it(lab, empty, rate):
    for port in range(10):
        empty.plug_in(port, HP)
    wait_until_present(empty, *range(10))
    wait_until_quiet(empty)
    daemon, looks = pid(empty), [memory(empty)]
    asking = start_flood(lab, BROWSE_QUESTION, rate, FLOOD_SECONDS)
    while asking.poll() is None:
        looks.append(memory(empty))
        # To look is work for the machine too.
        time.sleep(LOOK_SECONDS)
    counted = json.loads(asking.stdout.read())
    wait_until_quiet(empty)
    print(f"\n{counted}; KiB before, at the worst and after:")
    for name, after in memory(empty).items():
        seen = [look[name] for look in looks]
        worst = min(seen) if name == "MemAvailable" else max(seen)
        print(f"  {name:12} {seen[0]:7} {worst:7} {after:7}")
    assert counted["sent"] == rate * FLOOD_SECONDS
    assert empty.run("dmesg | grep -A60 oom-killer || true") == ""
    assert pid(empty) == daemon
    assert len(lab.ask(BROWSE_QUESTION)) == 10


@pytest.mark.kinds("debian")
def test_unit_confines_the_daemon(machine):
    status = machine.run(f"cat /proc/{pid(machine)}/status")
    fields = dict(line.split(":\t", 1) for line in status.splitlines())
    for field in ("CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb"):
        assert fields[field] == NET_RAW, field
    assert fields["NoNewPrivs"] == "1"
    assert fields["Seccomp"] == "2"
    assert "0" not in fields["Uid"].split()
    assert machine.run(f"nsenter -t {pid(machine)} -m touch /etc/x || echo no").endswith("no\n")


def test_restart_says_goodbye_and_comes_back(lab, machine):
    since = lab.capture.mark()
    machine.run(RESTART[lab.router.kind.system])
    wait_for_packets(lab, WITHDRAWN, since)
    wait_for_start(lab, since, RESPAWN_BOUND)


def test_daemon_that_is_killed_is_restarted(lab, machine):
    killed, since = pid(machine), lab.capture.mark()
    machine.run(f"kill -9 {killed}")
    wait_for_start(lab, since, RESPAWN_BOUND)
    assert pid(machine) != killed


def test_bridge_that_is_made_again_is_answered_on(lab, machine):
    system = lab.router.kind.system
    changes = [BRIDGE_ANEW[system]]
    if system == "debian":
        # It flaps, and it gets its name later.
        flaps = 6 * "ip link del br0; ip link add br0 type bridge; "
        later = f"ip link del br0; ip link add brx address {MAC} type bridge; "
        later += "ip link set brx name br0; systemctl restart systemd-networkd"
        changes += [flaps + BRIDGE_ANEW[system], later]
    for change in changes:
        since = lab.capture.mark()
        machine.run(change)
        wait_for_start(lab, since, RESPAWN_BOUND)
        assert lab.ask(wire.HOST_QUESTION) == [wire.HOST_ANSWER]


@pytest.mark.kinds("debian")
def test_daemon_that_was_stopped_stays_so_and_events_of_no_other_bridge_restart_none(lab, machine):
    daemon, again = pid(machine), "udevadm trigger -c add -s net && udevadm settle"
    machine.run(again)
    # A restart would be under way.
    assert machine.run("systemctl is-active bonjour") == "active\n" and pid(machine) == daemon
    machine.run(f"systemctl stop bonjour && {again}")
    assert machine.try_to_run("systemctl is-active bonjour")[1] == "inactive\n"
    since = lab.capture.mark()
    machine.run("systemctl start bonjour")
    wait_for_start(lab, since, RESPAWN_BOUND)


@pytest.fixture
def bound(machine):
    """The name of a unit of somebody else's that needs the bridge."""
    machine.run(f"printf '{BOUND}' > /etc/systemd/system/bound.service")
    machine.run("systemctl daemon-reload && systemctl enable --now bound")
    yield "bound"
    machine.run("systemctl disable --now bound && rm /etc/systemd/system/bound.service")


@pytest.mark.kinds("debian")
@pytest.mark.parametrize(
    "without, back",
    [
        (f"systemctl disable --now bonjour && {INSTALL}", "systemctl enable --now bonjour"),
        (f"systemctl mask --now bonjour && {INSTALL}", "systemctl unmask --now bonjour"),
        ("dpkg -r bonjour", INSTALL),
        ("systemctl mask bonjour && dpkg -P bonjour", f"systemctl unmask bonjour; {INSTALL}"),
    ],
    ids=["disabled", "masked", "removed", "purged"],
)
def test_what_needs_the_bridge_starts_without_the_daemon(machine, bound, without, back):
    started = f"systemctl show -p InvocationID {bound}"
    machine.run(without, 60)
    before = machine.run(started).strip()
    machine.run(BRIDGE_ANEW["debian"])
    machine.wait_until(f"systemctl is-active {bound} && [ $({started}) != {before} ]")
    machine.run("udevadm settle")
    assert machine.try_to_run("pidof bonjour")[0] == 1
    machine.run(back, 60)
    machine.run("systemctl start bonjour")


@pytest.mark.kinds("debian")
def test_daemon_runs_when_its_package_could_not_be_removed(machine):
    prerm = "/var/lib/dpkg/info/bonjour.prerm"
    machine.run(f"echo exit 1 >> {prerm}")
    assert machine.try_to_run("dpkg -r bonjour", 60)[0] == 1
    machine.run(f"systemctl is-active bonjour && sed -i '$d' {prerm}")


@pytest.mark.kinds("debian")
@pytest.mark.parametrize("state", ["enabled", "disabled"])
def test_upgrade_from_the_strong_link_keeps_the_state_and_harms_nobody(lab, machine, state):
    """As versions before this one have installed it."""
    states, units = "/var/lib/systemd/deb-systemd-helper-enabled", "/etc/systemd/system"
    link = f"{BRIDGE}.requires/bonjour.service"
    machine.run(
        f"systemctl disable --now bonjour && rm -r {states}/{BRIDGE}.wants"
        f" && mkdir -p {states}/{BRIDGE}.requires {units}/{BRIDGE}.requires"
        f" && echo {units}/{link} > {states}/bonjour.service.dsh-also && touch {states}/{link}"
    )
    if state == "enabled":
        machine.run(f"ln -s /lib/systemd/system/bonjour.service {units}/{link}")
        machine.run("update-rc.d bonjour enable")
    machine.run(INSTALL, 60)
    assert machine.try_to_run("systemctl is-enabled bonjour")[1].endswith(f"{state}\n")
    running = machine.try_to_run("systemctl is-active bonjour")[0] == 0
    assert running == (state == "enabled")
    assert "bonjour" not in machine.run(f"systemctl show -p Requires {BRIDGE}")
    since = lab.capture.mark()
    machine.run("systemctl enable bonjour && systemctl restart bonjour")
    wait_for_start(lab, since, RESPAWN_BOUND)


def test_reboot_says_goodbye_and_comes_back(lab, machine):
    since = lab.capture.mark()
    machine.reboot()
    wait_for_packets(lab, WITHDRAWN, since, BOOT_BOUND)
    wait_for_start(lab, since, BOOT_BOUND)


def test_power_off_says_goodbye(lab, machine):
    since = lab.capture.mark()
    machine.power_off()
    wait_for_packets(lab, WITHDRAWN, since)
