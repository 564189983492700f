"""Hostile links: floods of every kind of question leave memory flat and the link in peace, and a
printer that does not answer holds nothing up."""

import collections
import time

import pytest
from lab.dual import A_SECOND, HOST, IPV4, QU, is_multicast, query
from lab.usage import tells_memory, usage

RATE = 5000
SECONDS = 3
HOSTS = 4
# A host gets no more answers by unicast in a second.
UNICAST_PER_HOST = 100

BROWSE = "_ipp._tcp.local"


def flood(lab, kinds, seconds):
    """Each host asks every kind in turn, RATE questions a second together, or as many as a busy
    machine can send: there are always as many in all."""
    begun = time.monotonic()
    sent = 0
    while sent < RATE * seconds:
        elapsed = time.monotonic() - begun
        while sent < min(elapsed, seconds) * RATE:
            asker = lab.askers[sent % HOSTS]
            payload, family, port = kinds[sent % len(kinds)]
            asker.send(payload, family, port)
            sent += 1
        time.sleep(0.001)


@pytest.mark.seconds(20)
def test_flood_leaves_memory_flat_and_the_link_in_peace(dual):
    for port in range(10):
        dual.router.plug_in(port, model=f"Model {port}")
    for _ in range(HOSTS - 1):
        dual.add_asker()
    daemon = dual.start()
    dual.wait_for_record(BROWSE, "PTR", count=4)
    kinds = [
        (question, family, port)
        for family in ("ipv4", "ipv6")
        for question, port in (
            (query(HOST, "A"), 5353),
            (query(BROWSE, "PTR"), 5353),
            (query(HOST, "AAAA", QU), 5353),
            (query(HOST, "A", ident=1), 0),
            (query(BROWSE, "PTR", ident=1), 0),
        )
    ]
    flood(dual, kinds, 0.5)
    before = usage(daemon.pid)
    since = dual.capture.mark()
    flood(dual, kinds, SECONDS)
    # It answers on, and is asked once more than it may answer a host.
    dual.asker.send(query(HOST, "AAAA"), "ipv4")
    dual.wait_for_record(HOST, "AAAA", dual.capture.mark())
    after = usage(daemon.pid)
    print(f"{before} before, {after} after")
    assert (after.threads, after.descriptors) == (before.threads, before.descriptors)
    if tells_memory(daemon.pid):
        assert after.memory <= before.memory + 16

    last = {}
    unicast = collections.Counter()
    for packet in dual.heard(since, wanted=lambda one: not one.is_query):
        if not is_multicast(packet):
            unicast[packet.destination, int(packet.time)] += 1
            continue
        for one in packet.message.answers:
            key = (packet.destination, one.name, one.type, one.data)
            if key in last and packet.time != last[key]:
                assert packet.time - last[key] >= A_SECOND, f"section 6: {key}"
            last[key] = packet.time
    # A second of the clock holds up to two of the daemon's periods.
    assert unicast and max(unicast.values()) <= 2 * UNICAST_PER_HOST


def test_printer_that_does_not_answer_holds_nothing_up(dual):
    daemon = dual.start()
    dual.router.connect_device(0, "MODEL:X;", delay=5)
    dual.router.plug_in(0, model="")
    daemon.wait_for_line("[Bonjour] device insert lp0")
    packet = dual.ask(query(HOST, "A", QU), "ipv4", bound=1)
    assert {one.data for one in packet.message.answers} == {IPV4}
