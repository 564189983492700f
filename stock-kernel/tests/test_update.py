"""The status file as a whole: when it is written, and that it is right at every moment."""

import os
import signal
import subprocess

import pytest
from stock_system import KERNELS, PRINTERS, STATUS_FILE

from lab.waiting import wait_until

ACME = b"MFG:Acme;MDL:Jet;CMD:PCL;"
OTHER = b"MFG:Other;MDL:Ink;CMD:PS;"


def record(port, lines="Acme\nJet\nPCL"):
    return f"usblp{port}\n{lines}\n\n"


def other(port):
    return record(port, "Other\nInk\nPS")


def made(path):
    """What tells whether a file or link was made again: reading changes its time of access."""
    status = path.lstat()
    return status.st_ino, status.st_ctime_ns


def test_printers_have_their_records_in_order_until_they_go(system):
    system.update()
    assert system.status == ""
    for port in (9, 3, 0, 7, 10, 1, 8, 2, 6, 4, 5):
        system.plug_in(port, ACME)
    system.update()
    assert system.status == "".join(record(port) for port in range(10))
    assert system.log == ["bonjour-printers: lp10: port above 9, not published"]
    for port in range(9):
        system.pull_out(port)
    system.update()
    assert system.status == record(9)
    assert system.slept == []


def test_everybody_may_read_it_to_its_end_and_nothing_else_lies_beside_it(system):
    system.plug_in(0, ACME)
    assert system.run(PRINTERS, "update", umask=0o077).returncode == 0
    assert (system.root / STATUS_FILE).stat().st_mode & 0o777 == 0o644
    assert (system.root / STATUS_FILE).parent.stat().st_mode & 0o777 == 0o755
    assert system.files == ["printer_status"]
    with open(system.root / STATUS_FILE) as reader:
        system.pull_out(0)
        system.update()
        assert reader.read() == record(0)


def test_file_is_written_again_only_if_it_is_wrong(system):
    system.plug_in(1, ACME)
    system.update()
    first = made(system.root / STATUS_FILE)
    system.update()
    assert made(system.root / STATUS_FILE) == first
    (system.root / STATUS_FILE).write_text(other(0) + record(1) + "usblp2\nOther")
    system.settle()
    assert system.status == record(1)


# Printers that change between two of the daemon's looks


@pytest.fixture
def published(system):
    """With two printers in the file."""
    system.plug_in(0, ACME)
    system.plug_in(1, OTHER)
    system.settle()
    assert system.status == record(0) + other(1)
    return system


def replace(system, port, device_id):
    system.pull_out(port)
    system.plug_in(port, device_id)


def test_port_of_another_printer_is_left_out_for_two_looks(published):
    replace(published, 0, OTHER)
    published.settle()
    assert published.status == other(0) + other(1)
    during = ["slept 1: usblp1", "Other", "Ink", "PS"]
    assert published.slept == 3 * during


def test_printers_that_swap_their_ports_are_left_out_both(published):
    replace(published, 0, OTHER)
    replace(published, 1, ACME)
    published.settle()
    assert published.status == other(0) + record(1)
    assert published.slept == 3 * ["slept 1: "]


def test_printer_that_changes_again_is_left_out_as_long_once_more(published):
    """The file is never without the port for less than two looks."""
    published.pull_out(0)
    published.update()
    published.set_uptime("1002.57")
    published.plug_in(0, OTHER)
    published.update()
    assert published.status == other(0) + other(1)
    replace(published, 0, ACME)
    published.settle()
    assert len(published.slept) == 3 * 4


@pytest.mark.parametrize(
    "uptime, waits",
    [("1000.08", True), ("1002.56", True), ("1002.57", False), ("99.08", False), ("0.09", False)],
    ids=["at once", "almost two looks", "two looks", "after a boot", "at the very boot"],
)
def test_port_is_left_out_for_two_looks_and_no_longer(published, uptime, waits):
    published.pull_out(0)
    published.update()
    published.set_uptime(uptime)
    published.plug_in(0, OTHER)
    published.settle()
    assert published.status == other(0) + other(1)
    assert bool(published.slept) == waits


# What update leaves to a process of its own


def recorder(name, status=0):
    return f'#!/bin/sh\necho "{name} $*" >> /called\nexit {status}\n'


SYSTEMD_RUN = f"systemd-run --quiet --no-block --collect {PRINTERS} settle"
SETSID = f"setsid {PRINTERS} settle"


@pytest.mark.parametrize("left", ["record", "attribute"])
@pytest.mark.parametrize(
    "has_systemd, status, called",
    [(False, 0, [SETSID]), (True, 0, [SYSTEMD_RUN]), (True, 1, [SYSTEMD_RUN, SETSID])],
    ids=["no systemd", "systemd", "systemd that refuses"],
)
def test_update_leaves_what_takes_seconds_to_others(published, has_systemd, status, called, left):
    system = published
    system.replace_program("setsid", recorder("setsid"))
    system.replace_program("systemd-run", recorder("systemd-run", status))
    if has_systemd:
        (system.root / "run/systemd/system").mkdir(parents=True)
    replace(system, 0, OTHER if left == "record" else None)
    system.update()
    wait_until(lambda: system.lines("called") == called, "the rest is left to others")
    assert system.status == other(1)
    assert (system.slept, system.log) == ([], [])


def test_without_setsid_the_rest_is_done_all_the_same(debian):
    debian.plug_in(0, ACME)
    debian.update()
    (debian.root / "bin/setsid").unlink()
    replace(debian, 0, OTHER)
    debian.update()
    wait_until(lambda: debian.status == other(0), "the rest is done")


def test_rest_is_done_and_holds_nothing_of_the_callers(published):
    """Neither pipes nor locks: the caller is waited for through the descriptors 1, 2, 3 and 9."""
    system = published
    sleep = "until [ -e /goes-on ]; do /real/sleep 0.01; done; echo 2000.00 > /proc/uptime"
    system.replace_program("sleep", f"#!/bin/sh\n{sleep}\n")
    replace(system, 0, OTHER)
    try:
        done = system.run("/bin/sh", "-c", f"{PRINTERS} update 3>&1 9>&2")
        assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
        assert system.status == other(1)
    finally:
        (system.root / "goes-on").touch()
    wait_until(lambda: system.status == other(0) + other(1), "the rest is done")


# The file of a kernel that has one


def test_file_of_the_kernel_is_linked_when_it_appears_and_given_up_when_it_goes(published):
    kernels = published.root / KERNELS[1:]
    kernels.write_text(record(0))
    published.settle()
    first = made(published.root / STATUS_FILE)
    published.update()
    assert made(published.root / STATUS_FILE) == first
    assert os.readlink(published.root / STATUS_FILE) == KERNELS
    assert kernels.read_text() == record(0)
    assert published.slept == 3 * ["slept 1: "]
    kernels.unlink()
    published.settle()
    assert not (published.root / STATUS_FILE).is_symlink()
    assert published.status == record(0) + other(1)
    assert published.slept == 6 * ["slept 1: "]


# Several at once


# The first call of a program says that it is held, and waits until it is told to go on or to fail.
HELD = """#!/bin/sh
if mkdir /held 2> /dev/null; then
  until [ -e /goes-on ]; do
    [ ! -e /fails ] || exit 1
    /real/sleep 0.01
  done
fi
exec /real/@program@ "$@"
"""


def start_settling(system):
    words = ["env", "--default-signal=HUP,INT,TERM", *system.command(PRINTERS, "settle")]
    return subprocess.Popen(words, start_new_session=True)


@pytest.fixture(params=["cat", "mv"], ids=["looking", "writing"])
def held(debian, request):
    """A call that has seen a printer at port 0 and is held between looking at the printers and
    changing the file, or in the middle of that."""
    debian.settle()
    debian.plug_in(0, ACME)
    debian.replace_program(request.param, HELD.replace("@program@", request.param))
    started = start_settling(debian)
    wait_until((debian.root / "held").exists, "it is held")
    return started


def test_one_that_was_overtaken_leaves_the_newer_state(debian, held):
    debian.pull_out(0)
    debian.plug_in(1, ACME)
    debian.settle()
    assert debian.status == record(1)
    (debian.root / "goes-on").touch()
    assert held.wait() == 0
    assert debian.status == record(1)


def test_one_that_was_killed_is_in_no_later_ones_way(debian, held):
    os.killpg(held.pid, signal.SIGKILL)
    held.wait()
    assert debian.status == ""
    debian.settle()
    assert debian.status == record(0)


@pytest.mark.parametrize("held", ["mv"], indirect=True)
@pytest.mark.parametrize("number", [signal.SIGHUP, signal.SIGINT, signal.SIGTERM])
def test_one_that_is_told_to_end_leaves_nothing_behind(debian, held, number):
    assert len(debian.files) == 2
    os.kill(held.pid, number)
    (debian.root / "fails").touch()
    held.wait()
    assert debian.files == ["printer_status"]
    assert debian.status == ""


# Attributes that the kernel makes late


def test_attribute_that_the_kernel_makes_late_is_waited_for(system):
    system.plug_in(0, None)
    attribute = "/sys/devices/printer0/ieee1284_id"
    system.replace_program("sleep", f"#!/bin/sh\necho '{ACME.decode()}' > {attribute}\n")
    system.settle()
    assert system.status == record(0)
    assert system.log == []


def test_attribute_that_never_comes_is_waited_for_three_seconds(system):
    system.plug_in(0, None)
    system.plug_in(1, ACME)
    system.settle()
    assert system.status == record(1)
    assert system.log == ["bonjour-printers: lp0: no device id, not published"]
    assert [line for line in system.slept if line.startswith("slept")] == 3 * ["slept 1: usblp1"]


@pytest.mark.parametrize(
    "device_id, program", [(None, "sleep"), (ACME, "awk")], ids=["waited for", "read"]
)
def test_printer_that_goes_while_its_id_is_waited_for_or_read_is_none(debian, device_id, program):
    debian.plug_in(0, device_id)
    gone = f'rm -f /sys/class/usbmisc/lp0; exec /real/{program} "$@"'
    debian.replace_program(program, f"#!/bin/sh\n{gone}\n")
    debian.settle()
    assert debian.status == ""
    assert debian.log == []


# What can go wrong


def test_full_file_system_keeps_the_old_file_and_nothing_beside_it(system):
    system.plug_in(0, ACME)
    system.update()
    system.plug_in(1, ACME)
    # Each write to a file fails.
    full = f"trap '' XFSZ; ulimit -f 0; exec {PRINTERS} update"
    assert system.run("/bin/sh", "-c", full).returncode == 1
    assert system.status == record(0)
    assert system.files == ["printer_status"]


@pytest.mark.parametrize(
    "program, words", [("awk", "toupper"), ("awk", "is_second"), ("cat", ""), ("mv", "")]
)
def test_want_of_memory_for_a_program_keeps_the_old_file(debian, program, words):
    debian.plug_in(0, ACME)
    debian.update()
    debian.plug_in(1, ACME)
    failing = f'case "$*" in *{words}*) exit 1 ;; esac; exec /real/{program} "$@"'
    debian.replace_program(program, f"#!/bin/sh\n{failing}\n")
    assert debian.run(PRINTERS, "update").returncode == 1
    assert debian.status == record(0)
    assert debian.files == ["printer_status"]


def test_without_a_logger_lines_go_to_standard_error(debian):
    (debian.root / "bin/logger").unlink()
    debian.plug_in(0, b"")
    done = debian.run(PRINTERS, "update")
    assert (done.returncode, done.stdout) == (0, "")
    assert done.stderr == "lp0: no device id, not published\n"


def test_wrong_arguments_and_help_show_the_right_ones(system):
    for arguments, status in (("", 2), ("update x", 2), ("run", 2), ("--help", 0)):
        done = system.run(PRINTERS, *arguments.split())
        shown, other = (done.stderr, done.stdout) if status else (done.stdout, done.stderr)
        assert (done.returncode, other) == (status, ""), arguments
        assert shown.startswith("usage: bonjour-printers update|settle\n"), arguments
