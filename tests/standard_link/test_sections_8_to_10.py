"""Claiming names and giving them back, as RFC 6762 has it in sections 8 to 10."""

import time

import pytest
from lab.dual import (
    A_SECOND,
    FAMILIES,
    FLUSH,
    HOST,
    IN,
    IPP,
    IPV4,
    LPD,
    PDL,
    QU,
    a,
    aaaa,
    has,
    is_multicast,
    message,
    query,
    question,
    record,
    response,
    srv,
)
from lab import packets
from lab.waiting import PATIENCE

IPP_TYPE = "_ipp._tcp.local"
RENAMED_HOST = HOST.replace(".local", "-1.local")
RENAMED_IPP = IPP.replace(" 0.", " 0 (2).")
# A loser of a comparison waits for this long (section 8.2).
TIE_PAUSE = 1.0

# Data that any other of the type is smaller than, or greater.
GREATER_A = a("255.255.255.255")
SMALLER_A = a("0.0.0.1")


def probes(lab, owner, since=0, family=None, count=1):
    """The first questions for `owner` with what is proposed."""
    return lab.wait(
        lambda one: one.is_query and any(each.name == owner for each in one.message.questions),
        since,
        family,
        count,
    )


def proposed(packet, owner):
    return {(one.type, one.data) for one in packet.message.authority if one.name == owner}


def flushing(packet):
    """The unique records that a response announces."""
    return () if packet.is_query else [one for one in packet.message.answers if one.cache_flush]


def test_section_8_1_names_are_probed_three_times(dual, family):
    dual.router.plug_in(0)
    dual.start(ready=False)
    sent = probes(dual, HOST, family=family, count=3)
    # After a random delay of at most 250 ms.
    connected = dual.router.daemon.wait_for_line("[Bonjour] Interface: br0 is connected")
    assert sent[0].time - connected.time < 0.25 + 0.1 * PATIENCE
    for packet in sent:
        assert is_multicast(packet)
        (one,) = [each for each in packet.message.questions if each.name == HOST]
        assert (one.type, one.unicast_response) == ("ANY", True)
        assert proposed(packet, HOST) >= {("A", IPV4)}
        assert not any(each.cache_flush for each in packet.message.authority)
    gaps = [later.time - earlier.time for earlier, later in zip(sent, sent[1:])]
    # 250 ms; on a busy machine one of them may leave after its turn.
    assert all(0.2 <= gap < 0.5 for gap in gaps), gaps
    announced = dual.wait_for_record(HOST, "A", family=family)[0]
    assert announced.time - sent[2].time >= 0.2
    dual.router.wait_for_banner()

    # The printer's three names together.
    sent = probes(dual, IPP, family=family, count=3)
    for packet in sent:
        names = {each.name for each in packet.message.questions}
        assert names >= {IPP, PDL, LPD}
        assert ("SRV", (631, HOST)) in proposed(packet, IPP)


def test_section_8_3_everything_is_announced_twice_a_second_apart(dual, family):
    dual.router.plug_in(0)
    dual.start()
    for owner, rrtype, flush in (
        (HOST, "A", True),
        (HOST, "AAAA", True),
        ("1.77.168.192.in-addr.arpa", "PTR", True),
        (IPP, "SRV", True),
        (IPP, "TXT", True),
        (LPD, "SRV", True),
        ("_ipp._tcp.local", "PTR", False),
        ("_universal._sub._ipp._tcp.local", "PTR", False),
        ("_services._dns-sd._udp.local", "PTR", False),
    ):
        first, second = dual.wait_for_record(owner, rrtype, family=family, count=2)
        assert second.time - first.time >= A_SECOND, owner
        for one in first.message.answers:
            if (one.name, one.type) == (owner, rrtype):
                assert one.cache_flush == flush, owner


@pytest.mark.parametrize("answer", ["A", "TXT"])
def test_section_8_1_host_name_in_use_gets_a_number(dual, family, answer):
    since = dual.capture.mark()
    dual.start(ready=False)
    probes(dual, HOST, since, family)
    rdata = a("192.168.77.99") if answer == "A" else b"\x01x"
    dual.asker.send(response(record(HOST, answer, rdata, rrclass=1 | FLUSH)), family)
    probes(dual, RENAMED_HOST, since, family, 3)
    dual.router.wait_for_banner()
    assert f"{dual.router.daemon.device_name}.local" == RENAMED_HOST
    assert not dual.heard(since, wanted=lambda one: has(one, HOST, "A"))
    # The reverse name leads to the new one.
    packet = dual.ask(query("1.77.168.192.in-addr.arpa", "PTR", QU), family, alone=True)
    assert packet.message.answers[0].data == RENAMED_HOST


def test_section_8_1_printer_name_in_use_gets_a_number(dual, family):
    dual.start()
    since = dual.capture.mark()
    dual.router.plug_in(0)
    probes(dual, IPP, since, family)
    # The name is in use for LPD alone (RFC 6763, section 8).
    other = record(LPD, "SRV", srv(515, "other.local"), rrclass=1 | FLUSH)
    dual.asker.send(response(other), family)
    dual.wait_for_record(RENAMED_IPP, "SRV", since, family)
    packet = dual.ask(query("_ipp._tcp.local", "PTR", QU), family, alone=True)
    assert [one.data for one in packet.message.answers] == [RENAMED_IPP]


@pytest.mark.parametrize(
    "rdata, wins", [(GREATER_A, False), (SMALLER_A, True)], ids=["loses", "wins"]
)
def test_section_8_2_simultaneous_probes_are_compared(dual, family, rdata, wins):
    since = dual.capture.mark()
    dual.start(ready=False)
    first = probes(dual, HOST, since, family)[0]
    both = [record(HOST, "A", rdata), record(HOST, "AAAA", aaaa("fe80::1"))]
    rival = message([question(HOST, "ANY", QU)], authority=both)
    dual.asker.send(rival, family)
    sent = probes(dual, HOST, since, family, 3)
    waited = max(later.time - earlier.time for earlier, later in zip([first, *sent], sent))
    assert (waited < 0.9) if wins else (waited >= TIE_PAUSE - 0.02)
    # The other one does not go on, so the name is free.
    dual.router.wait_for_banner()
    assert f"{dual.router.daemon.device_name}.local" == HOST


def test_section_8_2_equal_probe_is_no_conflict(dual, family):
    since = dual.capture.mark()
    dual.start(ready=False)
    first = probes(dual, HOST, since, family)[0]
    dual.asker.send(first.payload, family)
    sent = probes(dual, HOST, since, family, 3)
    assert sent[2].time - first.time < 0.9
    dual.router.wait_for_banner()
    assert f"{dual.router.daemon.device_name}.local" == HOST


def test_section_8_1_probe_for_an_own_name_is_denied_at_once(served, family):
    rival = [record(HOST, "A", a("192.168.77.99"))]
    # To all in any case, for hosts that do not hear unicast from each other, and to the asker alone
    # as well where that is what it wants.
    for rrclass, ways in ((IN, {True}), (QU, {True, False})):
        since = served.capture.mark()
        payload = message([question(HOST, "ANY", rrclass)], authority=rival)
        served.asker.send(payload, family)
        for way in ways:
            packet = served.wait(
                lambda one, way=way: has(one, HOST, "A") and is_multicast(one) == way, since, family
            )[0]
            asked = served.capture.seen(lambda one, sent=payload: one.payload == sent, since)[0]
            # 250 ms after the record was last defended by multicast.
            assert packet.time - asked.time < 0.5
            assert IPV4 in {one.data for one in packet.message.answers}


def test_section_8_1_after_fifteen_conflicts_each_attempt_waits_five_seconds(dual, family):
    since = dual.capture.mark()
    dual.start(ready=False)
    number = 0

    def name_of(attempt):
        return HOST if attempt == 0 else HOST.replace(".local", f"-{attempt}.local")

    times = []
    while number < 16:
        owner = name_of(number)
        times.append(probes(dual, owner, since, family)[0].time)
        used = record(owner, "A", a("192.168.77.99"), rrclass=1 | FLUSH)
        dual.asker.send(response(used), family)
        number += 1
    times.append(probes(dual, name_of(number), since, family)[0].time)
    assert times[16] - times[15] >= 4.9
    assert times[14] - times[0] < 10


def test_section_9_conflict_over_the_host_name_is_probed_again(dual, family):
    dual.router.plug_in(0)
    dual.start()
    dual.wait_for_announcements(families=[family])
    since = dual.capture.mark()
    rival = response(record(HOST, "A", a("192.168.77.99"), rrclass=1 | FLUSH))
    dual.asker.send(rival, family)
    probes(dual, HOST, since, family)
    dual.asker.send(rival, family)
    probes(dual, RENAMED_HOST, since, family, 3)
    dual.wait_for_record(RENAMED_HOST, "A", since, family)
    # That changes the data of every SRV record (section 8.4).
    target = (631, RENAMED_HOST)
    dual.wait(lambda one: target in {each.data for each in flushing(one)}, since, family)
    dual.router.daemon.wait_for_line(
        f"[Bonjour] default device name = {RENAMED_HOST.removesuffix('.local')}"
    )


def test_section_9_conflict_over_srv_is_probed_again(dual, family):
    dual.router.plug_in(0)
    dual.start()
    dual.wait_for_announcements(families=[family])
    since = dual.capture.mark()
    rival = response(record(IPP, "SRV", srv(631, "other.local"), rrclass=1 | FLUSH))
    dual.asker.send(rival, family)
    probes(dual, IPP, since, family)
    dual.asker.send(rival, family)
    dual.wait_for_record(RENAMED_IPP, "SRV", since, family)
    # A shared record that leads to the old name is taken back.
    gone = dual.wait(
        lambda one: any(
            each.ttl == 0 and each.data == IPP for each in one.message.answers if not one.is_query
        ),
        since,
        family,
    )
    assert gone


def test_section_9_identical_data_are_no_conflict(served, family):
    since = served.capture.mark()
    same = response(record(HOST, "A", a(IPV4), rrclass=1 | FLUSH))
    served.asker.send(same, family)
    served.ask(query(HOST, "A", QU), family)
    assert not served.heard(since, wanted=lambda one: one.is_query)


@pytest.mark.parametrize(
    "owner, rrtype, rdata, rrclass, ttl, true_ttl",
    [
        (HOST, "A", a(IPV4), IN | FLUSH, 0, 120),
        (HOST, "A", a(IPV4), IN | FLUSH, 59, 120),
        (IPP_TYPE, "PTR", packets.name(IPP), IN, 0, 4500),
    ],
)
def test_section_6_6_and_10_1_record_of_another_with_a_lower_ttl_is_put_right(
    served, family, owner, rrtype, rdata, rrclass, ttl, true_ttl
):
    since = served.capture.mark()
    served.asker.send(response(record(owner, rrtype, rdata, ttl, rrclass)), family)
    served.wait_for_record(owner, rrtype, since, family, ttl=true_ttl)


@pytest.mark.seconds(20)
def test_section_8_4_changes_are_announced_at_most_ten_times_a_minute(dual):
    network = dual.router.network
    added = [f"192.168.78.{number}" for number in range(1, 13)]
    network.ip(*(f"addr add {address}/32 dev br0" for address in added))
    dual.start()
    dual.wait_for_record(HOST, "A", family="ipv4", count=2)
    for address in added:
        network.ip(f"addr del {address}/32 dev br0")
        # Each could be announced at once: a second has passed since the last (section 6).
        time.sleep(1)
    for family in FAMILIES:
        said = dual.heard(0, family, lambda one: is_multicast(one) and has(one, HOST, "A"))
        assert 5 < len(said) <= 10
        packet = dual.ask(query(HOST, "A", QU), family, alone=True)
        assert not set(added) & {one.data for one in packet.message.answers}


def test_rfc_6763_section_4_1_control_characters_do_not_get_into_names(dual, family):
    dual.router.plug_in(0, "A\tB", "C\x1b\x7fD")
    dual.start()
    packet = dual.wait_for_record(IPP_TYPE, "PTR", family=family)[0]
    names = {one.data for one in packet.message.answers if one.name == IPP_TYPE}
    assert names == {f"A B C  D (aa:bb:cc) 0.{IPP_TYPE}"}


def test_section_10_1_printer_that_goes_gets_a_goodbye(dual, family):
    dual.router.plug_in(0)
    dual.router.plug_in(1, model="Model 13")
    dual.start()
    dual.wait_for_announcements(families=[family])
    since = dual.capture.mark()
    dual.router.pull_out(0)
    for owner, rrtype in (
        (IPP, "SRV"),
        (IPP, "TXT"),
        (PDL, "SRV"),
        (LPD, "SRV"),
        ("_ipp._tcp.local", "PTR"),
        ("_universal._sub._ipp._tcp.local", "PTR"),
    ):
        dual.wait_for_record(owner, rrtype, since, family, ttl=0)
    # The type stays with the other printer.
    packet = dual.ask(query("_services._dns-sd._udp.local", "PTR", QU), family, alone=True)
    assert "_ipp._tcp.local" in {one.data for one in packet.message.answers}
    packet = dual.ask(query("_ipp._tcp.local", "PTR", QU), family, alone=True)
    assert [one.data for one in packet.message.answers] == [
        IPP.replace("Model 12", "Model 13").replace(" 0.", " 1.")
    ]


def test_rfc_6763_section_4_1_utf_8_and_dots_in_names(dual, family):
    dual.router.plug_in(0, "Büro.Süd", "Drucker\u00a0№ 1")
    dual.start()
    label = "Büro.Süd Drucker\u00a0№ 1 (aa:bb:cc) 0".encode()
    owner = bytes([len(label)]) + label + packets.name("_ipp._tcp.local")
    start = owner[: len(label) + 1]
    dual.wait(lambda one: not one.is_query and start in one.payload, family=family)
    # Letters beyond ASCII have no case (section 16).
    packet = dual.ask(message([question(owner, "SRV", QU)]), family, alone=True)
    assert packet.message.answers[0].data == (631, HOST)
    capitals = "BÜRO.SÜD DRUCKER\u00a0№ 1 (AA:BB:CC) 0".encode()
    capitals = bytes([len(capitals)]) + capitals + packets.name("_ipp._tcp.local")
    assert not dual.hears_nothing([message([question(capitals, "SRV")])], family)


def test_rfc_6763_section_4_1_long_names_are_cut_to_a_label(dual):
    for port in range(2):
        dual.router.plug_in(port, "M" * 15, "ü" * 40)
    daemon = dual.start()

    def labels():
        return {
            one.data.removesuffix("._ipp._tcp.local")
            for packet in dual.heard()
            for one in packet.message.answers
            if one.name == "_ipp._tcp.local" and one.ttl
        }

    # Cut alike, they stay apart.
    daemon.wait_until(lambda: len(labels()) == 2, "two names")
    for label in labels():
        assert len(label.encode()) <= 63
        assert label.startswith("M" * 15 + " üü")
        assert "\\x" not in label, "half a letter"
