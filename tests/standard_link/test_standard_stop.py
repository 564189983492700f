"""The end (RFC 6762, section 10.1): goodbyes for everything, twice, and status 0 in a second."""

import contextlib
import os
import pathlib
import random
import signal
import time

import pytest
from lab.dual import FAMILIES, HOST, IPP, LPD, PDL, has
from lab.waiting import wait_until

# One second at the most. The monitor's pause alone takes as long.
QUICK = 1.0
# Of a process's flags in /proc/PID/stat.
PF_EXITING = 4

EVERYTHING = [
    (HOST, "A"),
    (HOST, "AAAA"),
    ("1.77.168.192.in-addr.arpa", "PTR"),
    (IPP, "SRV"),
    (IPP, "TXT"),
    (PDL, "SRV"),
    (LPD, "SRV"),
    (LPD, "TXT"),
    ("_ipp._tcp.local", "PTR"),
    ("_pdl-datastream._tcp.local", "PTR"),
    ("_universal._sub._ipp._tcp.local", "PTR"),
    ("_services._dns-sd._udp.local", "PTR"),
]


def exits(pid):
    """Whether the process has called exit, or has ended."""
    try:
        stat = pathlib.Path(f"/proc/{pid}/stat").read_text()
    except (FileNotFoundError, ProcessLookupError):
        return True
    flags = int(stat.rpartition(")")[2].split()[6])
    return bool(flags & PF_EXITING)


def stop(daemon, number=signal.SIGTERM):
    """Stops it; the seconds to its exit call. The kernel then closes the sockets, and waits for
    that while other network namespaces come and go."""
    begun = time.monotonic()
    daemon.signal(number)
    wait_until(lambda: exits(daemon.pid), "it exits")
    seconds = time.monotonic() - begun
    assert daemon.wait_for_exit() == 0
    return seconds


def test_everything_gets_a_goodbye_twice_and_nothing_follows(dual):
    dual.router.plug_in(0)
    daemon = dual.start()
    dual.wait_for_announcements()
    since = dual.capture.mark()
    assert stop(daemon) < QUICK
    for family in FAMILIES:
        sent = [one for one in dual.heard(since, family) if not one.is_query]
        for owner, rrtype in EVERYTHING:
            assert len([one for one in sent if has(one, owner, rrtype, ttl=0)]) == 2, owner
        assert not [one for one in sent if any(each.ttl for each in one.message.answers)]


def catches(daemon, number):
    """Whether the daemon has come so far as to take the signal."""
    status = pathlib.Path(f"/proc/{daemon.pid}/status").read_text()
    caught = int(next(line for line in status.splitlines() if "SigCgt" in line).split()[1], 16)
    return caught >> (number - 1) & 1


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
@pytest.mark.parametrize("after", [0.0, 0.15, 0.4, 0.65, 0.9, 1.2, 1.7, 2.3])
def test_it_ends_within_a_second_at_any_moment(dual, after, number):
    dual.router.plug_in(0)
    daemon = dual.start(ready=False)
    daemon.wait_until(lambda: catches(daemon, number), "the handler")
    # The moment is the subject: from before the first probe to after the printer's announcement.
    time.sleep(after)
    assert stop(daemon, number) < QUICK
    # Whatever was announced was taken back.
    alive = set()
    for packet in dual.heard(wanted=lambda one: not one.is_query):
        for one in packet.message.answers:
            key = (packet.destination, one.name, one.type, one.data)
            (alive.discard if one.ttl == 0 else alive.add)(key)
    assert not alive


def test_it_waits_for_no_pause_of_the_monitors(dual):
    dual.router.plug_in(0)
    # The moment is the subject: the beginning of the pause, which lasts a second, and any other.
    for moment in (0, random.random(), random.random()):
        daemon = dual.start()
        daemon.wait_for_line("[Bonjour] device insert lp0")
        time.sleep(moment)
        assert stop(daemon) < QUICK


def writing_end(path):
    """The end of a pipe with a name that is opened for writing, once somebody reads it."""
    descriptors = []

    def is_read():
        with contextlib.suppress(OSError):
            descriptors.append(os.open(path, os.O_WRONLY | os.O_NONBLOCK))
        return descriptors

    wait_until(is_read, f"{path} is read")
    return descriptors[0]


def test_it_waits_for_no_file_that_the_monitor_reads(dual):
    dual.router.plug_in(0)
    daemon = dual.start()
    dual.wait_for_announcements()
    status = dual.router.status_file.path
    status.unlink()
    os.mkfifo(status)
    held_open = writing_end(status)
    since = dual.capture.mark()
    assert stop(daemon) < QUICK
    os.close(held_open)
    for family in FAMILIES:
        assert [one for one in dual.heard(since, family) if has(one, IPP, "SRV", ttl=0)]


@pytest.mark.dual(bridge=False)
def test_it_ends_without_a_bridge(dual):
    daemon = dual.start(ready=False)
    daemon.wait_for_line("[Bonjour] ioctl HWADDR error: No such device")
    assert stop(daemon) < QUICK
