"""The daemon's calls, thread by thread, in the order in which they are prescribed.

Two calls that change places change what is written here. Left out are those for memory and time.
"""

import itertools
import re

import pytest
import wire
from board import ANSWERING, DETACHED, FIRST_DETACHED, INITIAL, JOINABLE, MONITOR, PROBER, RESPONDER
from lab import packets

pytestmark = [pytest.mark.release, pytest.mark.seconds(8)]

LEFT_OUT = ("calloc", "mmap", "pthread_attr_setstacksize", "sysconf")
# What a call is about.
NAMES = {
    "pthread_create": {JOINABLE: "joinable", DETACHED: "detached"},
    "ioctl": {
        0x8927: "SIOCGIFHWADDR",
        0x8913: "SIOCGIFFLAGS",
        0x8915: "SIOCGIFADDR",
        0x82005001: "LPIOC_GET_DEVICE_ID",
    },
    "setsockopt": {
        0x10002: "SO_REUSEADDR",
        0x10019: "SO_BINDTODEVICE",
        35: "IP_ADD_MEMBERSHIP",
        32: "IP_MULTICAST_IF",
        34: "IP_MULTICAST_LOOP",
        0x10014: "SO_RCVTIMEO",
    },
}

ADDRESS = ["socket", "ioctl SIOCGIFFLAGS", "ioctl SIOCGIFADDR", "close"]
READ_STATUS_FILE = ["open /proc/printer_status", "read", "close"]
HOST_LINE = "[Bonjour] answer(192.168.77.1) query target from 192.168.77.10 (47)"
IPP_LINE = "[Bonjour] answer(192.168.77.1) query _ipp from 192.168.77.10 (33)"
# The model is asked for after the look at the file, once for each service: probe and announcement.
PUBLISHING = [
    *READ_STATUS_FILE,
    "open /dev/usblp0",
    "ioctl LPIOC_GET_DEVICE_ID",
    "close",
    "pthread_create detached",
]

# Behind those that see to the standard descriptors.
INITIAL_CALLS = [
    "socket",
    "ioctl SIOCGIFHWADDR",
    "close",
    "pthread_create joinable",
    "sleep 1",
    "pthread_create joinable",
    "write [QX] T5140 Bonjour v2.1 Start",
    "sigsuspend",
    "shutdown",
    "pthread_join",
]
RESPONDER_CALLS = [
    *ADDRESS,
    "socket",
    "setsockopt SO_REUSEADDR",
    "bind",
    "setsockopt SO_BINDTODEVICE",
    "setsockopt IP_ADD_MEMBERSHIP",
    "setsockopt IP_MULTICAST_IF",
    "setsockopt IP_MULTICAST_LOOP",
    "setsockopt SO_RCVTIMEO",
    "write [Bonjour] Interface: br0 is connected",
    "pthread_create joinable",
    "pthread_join",
    "write [Bonjour] default device name = T5140_00-11-22-AA-BB-CC",
    "pthread_create joinable",
    "write [Bonjour] Answer Name Start (192.168.77.1)",
    *ADDRESS,
    "pthread_join",
    # What is under way, the goodbyes of two services, their transmissions.
    "usleep 10000",
    "pthread_create detached",
    "usleep 10000",
    "close",
    "the end",
]
PROBER_CALLS = [
    "pthread_create detached",
    "recvfrom",
    "write [Bonjour] MDNS_CheckName: ignorePackets limits.",
    "the end",
]
ANSWERS = [
    ["recvfrom", f"write {line}", *ADDRESS, "pthread_create detached", "recvfrom"]
    for line in (HOST_LINE, IPP_LINE)
]
PRINTER_COMES = [
    *READ_STATUS_FILE,
    "write [Bonjour] device insert lp0",
    *PUBLISHING,
    *PUBLISHING,
    "sleep 1",
]
PRINTER_GOES = [
    *READ_STATUS_FILE,
    "write [Bonjour] device remove lp0",
    "pthread_create detached",
    "sleep 1",
]
SENDER_CALLS = ["sendto 57", "usleep 250000"] * 3 + ["the end"]


def words(call):
    """The call in the notation above."""
    about = "" if call.about == -1 else NAMES.get(call.function, {}).get(call.about, call.about)
    text = re.sub(r"(v2\.1 Start) .*", r"\1", call.text)
    return f"{call.function} {text or about}".strip()


def distinct(calls):
    """Pauses, receptions and the like that follow one another count as one."""
    return [key for key, _ in itertools.groupby(calls)]


def holds(calls, wanted):
    """Whether these calls follow one another somewhere."""
    return any(calls[i : i + len(wanted)] == wanted for i in range(len(calls)))


def test_each_thread_makes_its_calls_in_the_prescribed_order(lab, router, board, start):
    """The life of a router with a printer whose model comes from its device id."""
    board.record()
    daemon = start("T5140")
    router.connect_device(0, "MFG:HP;MODEL:Model 12;CMD:PJL,PCL;")
    router.plug_in(0, model="")
    lab.wait_for_packet(lambda packet: b"ty=Model 12" in packet.payload, count=6)
    lab.ask(wire.HOST_QUESTION)
    lab.ask(packets.query(("_ipp._tcp.local", "PTR")))
    router.pull_out(0)
    daemon.wait_for_line("[Bonjour] device remove lp0")
    router.plug_in(0)
    lab.wait_for_transmissions(wire.IPP_RECORDS)
    router.stop()
    calls = [call for call in board.calls() if call.function not in LEFT_OUT]

    def of(thread):
        return distinct(words(call) for call in calls if call.thread == thread)

    assert of(INITIAL)[-len(INITIAL_CALLS) :] == INITIAL_CALLS
    assert of(RESPONDER) == RESPONDER_CALLS
    assert of(PROBER) == PROBER_CALLS
    for answer in ANSWERS:
        assert holds(of(ANSWERING), answer)
    assert holds(of(MONITOR), PRINTER_COMES)
    assert holds(of(MONITOR), PRINTER_GOES)
    senders = {call.thread for call in calls if call.thread >= FIRST_DETACHED}
    answers = [thread for thread in senders if of(thread)[0] == "sendto 57"]
    assert len(answers) >= 2
    assert all(of(thread) == SENDER_CALLS for thread in answers)
