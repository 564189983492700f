"""The daemon's system calls, thread by thread, in the order in which they are prescribed.

Two calls that change places change what is written here. Left out are the calls that the C library
makes for memory, threads and its own start.
"""

import itertools
import re

import pytest
import wire
from lab import packets

pytestmark = [pytest.mark.release, pytest.mark.seconds(8)]

THREAD = "thread"
SECOND = "sleep 1 s"
ADDRESS = ["socket udp", "ioctl SIOCGIFFLAGS", "ioctl SIOCGIFADDR", "close"]
READ_STATUS_FILE = ["open /proc/printer_status O_RDONLY", "read 4096", "read 4096", "close"]

INITIAL = [
    "signal SIGPIPE ignored",
    "signal SIGINT handled",
    "signal SIGTERM handled",
    "socket udp",
    "ioctl SIOCGIFHWADDR",
    "close",
    THREAD,
    SECOND,
    THREAD,
    "write [QX] T5140 Bonjour v2.1 Start (...)",
    "wait for a signal",
    "shutdown SHUT_RD",
    "exit 0",
]

SET_UP = [
    *ADDRESS,
    "socket udp",
    "setsockopt SOL_SOCKET, SO_REUSEADDR, [1], 4",
    "bind 0.0.0.0:5353",
    r'setsockopt SOL_SOCKET, SO_BINDTODEVICE, "br0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0'
    r'\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 32',
    'setsockopt SOL_IP, IP_ADD_MEMBERSHIP, {imr_multiaddr=inet_addr("224.0.0.251"), '
    'imr_interface=inet_addr("192.168.77.1")}, 8',
    "setsockopt SOL_IP, IP_MULTICAST_IF, [0], 4",
    r'setsockopt SOL_IP, IP_MULTICAST_LOOP, "\0", 1',
    r'setsockopt SOL_SOCKET, SO_RCVTIMEO, "\5\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 16',
    "write [Bonjour] Interface: br0 is connected",
]

RESPONDER = [
    *SET_UP,
    THREAD,
    "write [Bonjour] default device name = T5140_00-11-22-AA-BB-CC",
    THREAD,
    "write [Bonjour] Answer Name Start (192.168.77.1)",
    *ADDRESS,
    # The stop: what is under way, the goodbyes of two services, their transmissions.
    "sleep 10 ms",
    THREAD,
    THREAD,
    "sleep 10 ms",
    "close",
]

PROBER = [
    THREAD,
    "receive 1518",
    "write [Bonjour] MDNS_CheckName: ignorePackets limits.",
]

SENDER = ["send 57 to 224.0.0.251:5353", "sleep 250 ms"] * 3

HOST_ANSWER = [
    "write [Bonjour] answer(192.168.77.1) query target from 192.168.77.10 (47)",
    *ADDRESS,
    THREAD,
]

IPP_ANSWER = [
    "write [Bonjour] answer(192.168.77.1) query _ipp from 192.168.77.10 (33)",
    *ADDRESS,
    THREAD,
]

# The model is asked for after the look at the file, once for each service.
PUBLISHING = [
    *READ_STATUS_FILE,
    "open /dev/usblp0 O_RDWR",
    "ioctl LPIOC_GET_DEVICE_ID",
    "close",
    THREAD,
    THREAD,
]
PRINTER_COMES = [
    *READ_STATUS_FILE,
    "write [Bonjour] device insert lp0",
    *PUBLISHING,
    *PUBLISHING,
    SECOND,
]

PRINTER_GOES = [
    "open /proc/printer_status O_RDONLY",
    "read 4096",
    "close",
    "write [Bonjour] device remove lp0",
    THREAD,
    THREAD,
    SECOND,
]


# How a line of the trace is written in the notation above. The first pattern that matches counts.
PATTERNS = [
    (r"^clone3?\(", THREAD),
    (r"^rt_sigaction\((SIGPIPE), {sa_handler=SIG_IGN", r"signal \1 ignored"),
    (r"^rt_sigaction\((SIGINT|SIGTERM), {sa_handler=0x", r"signal \1 handled"),
    (r"^rt_sigsuspend\(", "wait for a signal"),
    (r"^exit_group\((\d+)\)", r"exit \1"),
    (r"^socket\(AF_INET, SOCK_DGRAM, IPPROTO_IP\)", "socket udp"),
    (r"^ioctl\(\d+, (SIOC\w+)", r"ioctl \1"),
    (r"^ioctl\(\d+, _IOC\(_IOC_READ, 0x50, 0x1, 0x200\)", "ioctl LPIOC_GET_DEVICE_ID"),
    (r"^setsockopt\(\d+, (.*, SO_RCVTIMEO)_OLD(, .*)\) += ", r"setsockopt \1\2"),
    (r"^setsockopt\(\d+, (.*)\) += ", r"setsockopt \1"),
    (r'^bind\(.*htons\((\d+)\), sin_addr=inet_addr\("(.*?)"\)', r"bind \2:\1"),
    (
        r'^sendto\(.*, (\d+), 0, {.*htons\((\d+)\), sin_addr=inet_addr\("(.*?)"\)}',
        r"send \1 to \3:\2",
    ),
    (r"^recvfrom\(.*, (\d+), 0, ", r"receive \1"),
    (r"^shutdown\(\d+, (\w+)\)", r"shutdown \1"),
    (r"^(?:clock_)?nanosleep\(.*{tv_sec=([1-9]\d*), tv_nsec=0}", r"sleep \1 s"),
    (r"^(?:clock_)?nanosleep\(.*{tv_sec=0, tv_nsec=(\d+)000000}", r"sleep \1 ms"),
    (r'^openat\(AT_FDCWD, "(.*?)", (O_\w+)', r"open \1 \2"),
    (r"^read\(.*, (\d+)\) += ", r"read \1"),
    (r"^close\(", "close"),
    (r'^write\(\d+, "(\[QX\].* Start )\(.*\)\\n"', r"write \1(...)"),
    (r'^write\(\d+, "(.*)\\n"', r"write \1"),
]


def call(line):
    """What a line of the trace says in the notation above, or None."""
    for pattern, words in PATTERNS:
        found = re.search(pattern, line)
        if found:
            return found.expand(words)
    return None


def distinct(calls):
    """Pauses, receptions and the like that follow one another count as one."""
    return [key for key, _ in itertools.groupby(calls)]


class Trace:
    """What strace saw of each thread."""

    def __init__(self, prefix):
        paths = sorted(
            prefix.parent.glob(f"{prefix.name}.*"), key=lambda path: int(path.suffix[1:])
        )
        lines = [path.read_text().splitlines() for path in paths]
        # The C library's own start ends with the first thread's signals.
        first = next(i for i, line in enumerate(lines[0]) if "SIGPIPE" in line)
        lines[0] = lines[0][first:]
        self._threads = [[one for one in map(call, each) if one] for each in lines]

    @property
    def initial(self):
        return self._threads[0]

    def beginning_with(self, first):
        """The thread whose first calls are these."""
        (only,) = [each for each in self._threads if distinct(each)[: len(first)] == first]
        return only

    def senders_of(self, length):
        return [each for each in self._threads if each and each[0].startswith(f"send {length} ")]


def holds(calls, wanted):
    """Whether these calls follow one another somewhere."""
    return any(calls[i : i + len(wanted)] == wanted for i in range(len(calls)))


def test_each_thread_makes_its_calls_in_the_prescribed_order(lab, router, tmp_path):
    """The life of a router with a printer whose model comes from its device id."""
    prefix = tmp_path / "calls"
    strace = ["strace", "-ff", "-D", "-qq", "-e", "signal=none", "-s", "128", "-o", prefix]
    daemon = router.start("T5140", wrapper=strace)
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
    trace = Trace(prefix)

    assert distinct(trace.initial) == INITIAL

    responder = trace.beginning_with(SET_UP[:2])
    assert responder[: len(SET_UP)] == SET_UP
    assert distinct(responder) == distinct(RESPONDER)

    assert distinct(trace.beginning_with(PROBER[:2])) == PROBER

    answers = trace.senders_of(len(wire.HOST_ANSWER))
    assert len(answers) >= 2
    assert all(each == SENDER for each in answers)

    answering = trace.beginning_with(["receive 1518", HOST_ANSWER[0]])
    assert holds(answering, ["receive 1518", *HOST_ANSWER, "receive 1518"])
    assert holds(answering, ["receive 1518", *IPP_ANSWER, "receive 1518"])

    monitor = trace.beginning_with(["open /proc/printer_status O_RDONLY"])
    assert holds(monitor, PRINTER_COMES)
    assert holds(monitor, PRINTER_GOES)
