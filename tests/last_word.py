"""What a stop must leave behind on the link, and the moments at which it is tried.

A host believes the packet that it heard last. So, whatever goes on when the stop comes, the last
packet of every service is its goodbye, and the goodbye is there three times.
"""

import collections
import contextlib
import dataclasses
import functools
import threading
import time

from lab import packets
from lab.lab import TRANSMISSIONS
from lab.printers import Printer

SERVICE_TYPES = ("_pdl-datastream._tcp.local", "_ipp._tcp.local")
BROWSE = packets.query((SERVICE_TYPES[1], "PTR"))

# Seconds from the signal to the end of the process.
WITHOUT_SERVICES = 1.5
WITHOUT_PACKETS = 2.0
AT_ANY_TIME = 3.0

# Seconds for which the daemon waits for goodbyes to be sent, and between two of them.
WAIT = 1.5
PAUSE = 0.25


@functools.lru_cache(maxsize=4096)
def services_and_lifetime(payload):
    """The instances that a packet is about, and whether it withdraws them."""
    message = packets.parse(payload)
    records = message.answers + message.authority
    names = {record.data for record in records if record.type == "PTR"}
    names |= {record.name for record in records if record.type == "SRV"}
    is_goodbye = bool(message.answers) and all(record.ttl == 0 for record in message.answers)
    return names, is_goodbye


def check(sent, by_the_stop):
    """Raises unless the packets of a router, in their order, withdraw each service that they tell
    of: with three goodbyes, one of which is the service's last packet; with fewer if a busy machine
    let them begin so late that the daemon did not wait for the rest. Goodbyes that are sent
    `by_the_stop` have no other packet of the service between them. Returns how many services there
    were."""
    of_service = collections.defaultdict(list)
    begun, latest = None, {}
    for packet in sent:
        names, is_goodbye = services_and_lifetime(packet.payload)
        if is_goodbye and begun is None:
            begun = packet.time
        for name in names:
            of_service[name].append(is_goodbye)
            latest[name] = packet.time
    for name, heard in of_service.items():
        goodbyes = [index for index, is_goodbye in enumerate(heard) if is_goodbye]
        assert heard[-1], f"the last packet of {name} is no goodbye"
        is_cut_short = latest[name] + PAUSE >= begun + WAIT
        assert len(goodbyes) == TRANSMISSIONS or is_cut_short, f"{len(goodbyes)} goodbyes of {name}"
        if by_the_stop:
            assert goodbyes[0] == len(heard) - len(goodbyes), f"a packet between goodbyes of {name}"
    return len(of_service)


@dataclasses.dataclass(frozen=True)
class Moment:
    """What goes on when the stop comes."""

    printers: int = 1
    rate: int = 0  # questions a second, for a second before the signal and until the end
    before: float = None  # seconds from one question to the signal
    after: float = None  # seconds from the signal to one question
    coming: bool = False  # the printers are plugged in at that moment
    # They are pulled out at that moment. Not for a link with questions: the monitor's goodbye may
    # meet an answer that is under way, as it may without a stop.
    going: bool = False


@contextlib.contextmanager
def _asking(host, rate):
    """Context in which a host asks so many questions a second."""
    done = threading.Event()

    def ask():
        while not done.wait(1 / rate):
            host.send(BROWSE)

    thread = threading.Thread(target=ask)
    thread.start()
    try:
        yield
    finally:
        done.set()
        thread.join()


def _printers(count):
    return [Printer(port, "Maker", f"Jet {port}", "PCL") for port in range(count)]


def _wait_until_announced(lab, since, count):
    """Until the three transmissions of the last service's announcement have passed."""
    instance = f"Maker Jet {count - 1} (aa:bb:cc) {count - 1}._ipp._tcp.local"
    lab.wait_for_packet(
        lambda packet: not packet.is_query
        and instance in services_and_lifetime(packet.payload)[0],
        since,
        TRANSMISSIONS,
    )


def _wait_for_answers(daemon, count):
    daemon.lines.wait(
        lambda line: line.text.startswith("[Bonjour] answer("),
        count,
        daemon.mark(),
        10.0,
        "answers",
    )


def stop_at(lab, moment):
    """Starts the daemon, brings about the moment, stops the daemon and checks what it sent. Returns
    the seconds that the stop took."""
    router = lab.router
    since = lab.capture.mark()
    router.pull_out(*list(router.ports))
    daemon = router.start()
    if moment.printers and not moment.coming:
        router.plug_in_all(_printers(moment.printers))
        _wait_until_announced(lab, since, moment.printers)
    with contextlib.ExitStack() as asking:
        if moment.rate:
            asking.enter_context(_asking(lab.host, moment.rate))
        if moment.coming:
            router.plug_in_all(_printers(moment.printers))
            daemon.wait_for_line("[Bonjour] device insert lp0")
        elif moment.rate:
            _wait_for_answers(daemon, moment.rate)
        if moment.going:
            router.pull_out(*list(router.ports))
            daemon.wait_for_line("[Bonjour] device remove lp0")
        if moment.before is not None:
            lab.host.send(BROWSE)
            time.sleep(moment.before)  # the moment itself, not a wait for something
        if moment.after is not None:
            late = threading.Timer(moment.after, lab.host.send, [BROWSE])
            late.start()
            asking.callback(late.join)
        took = router.stop()
    count = check(lab.sent(since), not moment.going)
    assert count >= (0 if moment.coming else len(SERVICE_TYPES) * moment.printers)
    return took
