"""Hosts that send anything at all, as fast as they can. The daemon neither ends nor forgets."""

import contextlib
import random
import re
import threading
import time

import pytest
import wire
from lab import packets
from lab.usage import tells_memory, usage_once_senders_ended
from lab.waiting import TimedOut

HOSTS = 3
DATAGRAMS = 30_000
MEMORY_KEPT = 32 * 1024
BROWSE_IPP = packets.query(("_ipp._tcp.local", "PTR"))
BROWSE_PDL = packets.query(("_pdl-datastream._tcp.local", "PTR"))
VALID = [
    wire.HOST_QUESTION,
    BROWSE_IPP,
    packets.query(("_universal._sub._ipp._tcp.local", "PTR")),
    packets.query(("HP Model 12 (aa:bb:cc) 0._ipp._tcp.local", "SRV")),
    packets.query(("_ipp._tcp.local", "PTR"), ("_pdl-datastream._tcp.local", "PTR")),
    wire.IPP_RECORDS,
]


def anything(chance):
    """Bytes by chance, or a valid message with some bytes changed, cut, doubled or put in."""
    if chance.random() < 0.3:
        return chance.randbytes(chance.choice((1, 2, 11, 12, 13, 20, 64, 300, 1472, 1600)))
    message = bytearray(chance.choice(VALID))
    for _ in range(chance.randint(1, 4)):
        at = chance.randrange(len(message))
        kind = chance.randrange(4)
        if kind == 0:
            message[at] = chance.choice((0, 1, 0x3F, 0x40, 0xC0, 0xFF, chance.randrange(256)))
        elif kind == 1:
            del message[at + 1 :]
        elif kind == 2:
            message[at:at] = message[at : at + chance.randint(1, 300)]
        else:
            message[at:at] = chance.randbytes(chance.randint(1, 20))
    return bytes(message[:1600])


def wait_until_all_is_seen(lab, daemon):
    """Waits until the daemon has dealt with everything sent so far, and log and capture show it."""
    asking = lab.add_host()
    line = re.compile(rf".* query target from {asking.address} .*")
    for _ in range(60):
        start = time.time()
        asking.send(wire.HOST_QUESTION)
        # The question itself may have found no space in the daemon's socket.
        with contextlib.suppress(TimedOut):
            daemon.wait_for_line(line, bound=1)
            break
    lab.wait_for_packet(
        lambda packet: packet.time > start and packet.payload == wire.HOST_ANSWER, count=3
    )
    usage_once_senders_ended(daemon.pid)


@pytest.mark.seconds(20)
def test_daemon_survives_thousands_of_datagrams_and_answers_as_before(lab, daemon_with_printer):
    hosts = [lab.host, *(lab.add_host() for _ in range(HOSTS - 1))]
    before = usage_once_senders_ended(daemon_with_printer.pid)

    def attack(host, seed):
        chance = random.Random(seed)
        for _ in range(DATAGRAMS // HOSTS):
            host.send(anything(chance))

    attackers = [threading.Thread(target=attack, args=each) for each in zip(hosts, range(HOSTS))]
    for each in attackers:
        each.start()
    for each in attackers:
        each.join()
    wait_until_all_is_seen(lab, daemon_with_printer)

    assert lab.ask(wire.HOST_QUESTION) == [wire.HOST_ANSWER]
    assert lab.ask(BROWSE_IPP) == [wire.IPP_RECORDS]
    assert lab.ask(BROWSE_PDL) == [wire.PDL_RECORDS]
    assert daemon_with_printer.texts("stderr") == []
    known = ("[Bonjour] ", "[QX] ")
    assert [text for text in daemon_with_printer.texts() if not text.startswith(known)] == []
    after = usage_once_senders_ended(daemon_with_printer.pid)
    print(before, after)
    assert after.descriptors == before.descriptors
    if tells_memory(daemon_with_printer.pid):
        assert after.memory <= before.memory + MEMORY_KEPT
