"""Hosts that send anything at all, as fast as they can. The daemon neither ends nor forgets."""

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
DATAGRAMS = 100_000
MEMORY_KEPT = 32 * 1024

VALID = [
    wire.HOST_QUESTION,
    packets.query(("_ipp._tcp.local", "PTR")),
    packets.query(("_pdl-datastream._tcp.local", "PTR")),
    packets.query(("_universal._sub._ipp._tcp.local", "PTR")),
    packets.query(("HP Model 12 (aa:bb:cc) 0._ipp._tcp.local", "SRV")),
    packets.query(("_ipp._tcp.local", "PTR"), ("_pdl-datastream._tcp.local", "PTR")),
    packets.HARMLESS,
    wire.IPP_RECORDS,
]


def mutated(chance):
    """A valid message with some bytes changed, cut, doubled or put in."""
    message = bytearray(chance.choice(VALID))
    for _ in range(chance.randint(1, 4)):
        at = chance.randrange(len(message) + 1)
        kind = chance.randrange(4)
        if kind == 0 and at < len(message):
            message[at] = chance.choice((0, 1, 0x3F, 0x40, 0xC0, 0xFF, chance.randrange(256)))
        elif kind == 1:
            del message[at:]
        elif kind == 2:
            message[at:at] = message[at : at + chance.randint(1, 300)]
        else:
            message[at:at] = chance.randbytes(chance.randint(1, 20))
        if not message:
            break
    return bytes(message[:1600])


def anything(chance):
    return chance.randbytes(chance.choice((1, 2, 11, 12, 13, 20, 64, 300, 1472, 1600)))


def wait_until_all_is_seen(lab, daemon):
    """Waits until the daemon has dealt with everything sent so far, and log and capture show it."""
    deadline = time.monotonic() + 60
    while True:
        asking = lab.add_host()
        start = time.time()
        asking.send(wire.HOST_QUESTION)
        try:
            daemon.wait_for_line(re.compile(rf".* query target from {asking.address} .*"))
            lab.wait_for_packet(
                lambda packet: packet.time > start and packet.payload == wire.HOST_ANSWER, count=3
            )
            return
        except TimedOut:
            # The question itself may have found no space in the daemon's socket.
            assert time.monotonic() < deadline


@pytest.mark.seconds(40)
def test_daemon_survives_a_hundred_thousand_datagrams_and_answers_as_before(lab):
    lab.router.plug_in(0)
    daemon = lab.router.start()
    daemon.wait_for_line("[Bonjour] device insert lp0")
    lab.wait_for_transmissions(wire.IPP_RECORDS)
    hosts = [lab.host, *(lab.add_host() for _ in range(HOSTS - 1))]
    before = usage_once_senders_ended(daemon.pid)

    def attack(host, seed):
        chance = random.Random(seed)
        for _ in range(DATAGRAMS // HOSTS + 1):
            host.send(mutated(chance) if chance.random() < 0.7 else anything(chance))

    attackers = [threading.Thread(target=attack, args=each) for each in zip(hosts, (1, 2, 3))]
    for each in attackers:
        each.start()
    for each in attackers:
        each.join()
    wait_until_all_is_seen(lab, daemon)
    usage_once_senders_ended(daemon.pid)

    assert lab.ask(wire.HOST_QUESTION) == [wire.HOST_ANSWER]
    assert lab.ask(packets.query(("_ipp._tcp.local", "PTR"))) == [wire.IPP_RECORDS]
    assert lab.ask(packets.query(("_pdl-datastream._tcp.local", "PTR"))) == [wire.PDL_RECORDS]
    assert daemon.texts("stderr") == []
    known = ("[Bonjour] ", "[QX] ")
    assert [text for text in daemon.texts("stdout") if not text.startswith(known)] == []
    after = usage_once_senders_ended(daemon.pid)
    print(before, after)
    assert after.descriptors == before.descriptors
    if tells_memory(daemon.pid):
        assert after.memory <= before.memory + MEMORY_KEPT
