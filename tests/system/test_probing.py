"""Probing of the host name: conflicts, near misses and the end of the listening."""

import socket

import pytest
from lab.packets import HARMLESS, hexbytes

NAME = "T5140_00-11-22-AA-BB-CC"
REPEAT = "[Bonjour] MDNS_CheckName: device name repeat"
LIMIT = "[Bonjour] MDNS_CheckName: ignorePackets limits."
TIMEOUT = "[Bonjour] MDNS_CheckName: receive packet timeout"

PROBE = hexbytes(
    "0000 0000 0001 0000 0000 0000 17 'T5140_00-11-22-AA-BB-CC' 05 'local' 00 0001 0001"
)
PROBE_1 = hexbytes(
    "0000 0000 0001 0000 0000 0000 19 'T5140_00-11-22-AA-BB-CC-1' 05 'local' 00 0001 0001"
)
PROBE_2 = hexbytes(
    "0000 0000 0001 0000 0000 0000 19 'T5140_00-11-22-AA-BB-CC-2' 05 'local' 00 0001 0001"
)


def response(label):
    """An answer of a host that has the name with this first label, given in wire form."""
    return hexbytes(
        f"0000 8400 0000 0001 0000 0000 {label} 05 'local' 00 0001 8001 00000078 0004 C0A84D63"
    )


SAME = response("17 'T5140_00-11-22-AA-BB-CC'")
SAME_1 = response("19 'T5140_00-11-22-AA-BB-CC-1'")


@pytest.fixture
def probing(lab, router):
    """The daemon, in the middle of its first probe."""
    daemon = router.start(ready=False)
    lab.wait_for_packet(PROBE)
    return daemon


def settle(lab, router, probe):
    """Ends the pass that found a conflict, and lets the pass after it find none."""
    router.end_probe()
    ended = router.daemon.wait_for_line(LIMIT).time
    lab.wait_for_packet(lambda packet: packet.payload == probe and packet.time > ended)
    router.end_probe()
    router.wait_for_banner()


def test_conflict_gives_the_name_a_suffix(lab, router, host, probing):
    host.send(SAME)
    probing.wait_for_line(REPEAT)
    lab.wait_for_transmissions(PROBE_1)
    settle(lab, router, PROBE_1)
    assert probing.device_name == f"{NAME}-1"


def test_next_probe_follows_a_conflict_after_250_ms(lab, host, probing, router):
    host.send(SAME)
    conflict = lab.capture.wait_for(lambda packet: packet.payload == SAME)[0]
    assert lab.wait_for_packet(PROBE_1)[0].time - conflict.time >= 0.249
    settle(lab, router, PROBE_1)


def test_pass_with_a_conflict_is_followed_by_a_fresh_pass_a_second_later(
    lab, router, host, probing
):
    host.send(SAME)
    lab.wait_for_transmissions(PROBE_1)
    router.end_probe()
    ending = lab.capture.wait_for(lambda packet: packet.payload == HARMLESS)[0].time
    probing.wait_for_line(LIMIT)
    fresh = lab.wait_for_packet(lambda packet: packet.payload == PROBE_1 and packet.time > ending)
    assert fresh[0].time - ending >= 0.999
    router.end_probe()
    router.wait_for_banner()


def test_second_conflict_replaces_the_suffix(lab, router, host, probing):
    host.send(SAME)
    lab.wait_for_packet(PROBE_1)
    host.send(SAME_1)
    lab.wait_for_packet(PROBE_2)
    settle(lab, router, PROBE_2)
    assert probing.device_name == f"{NAME}-2"
    assert probing.count(REPEAT) == 2


def test_numbers_begin_again_in_a_fresh_pass(lab, router, host, probing):
    host.send(SAME)
    lab.wait_for_packet(PROBE_1)
    host.send(SAME_1)
    lab.wait_for_packet(PROBE_2)
    router.end_probe()
    ended = probing.wait_for_line(LIMIT).time
    lab.wait_for_packet(lambda packet: packet.payload == PROBE_2 and packet.time > ended)
    host.send(response("19 'T5140_00-11-22-AA-BB-CC-2'"))
    probing.wait_for_line(REPEAT, count=3)
    lab.wait_for_packet(lambda packet: packet.payload == PROBE_1 and packet.time > ended)
    router.end_probe()
    ended = probing.wait_for_line(LIMIT, count=2).time
    lab.wait_for_packet(lambda packet: packet.payload == PROBE_1 and packet.time > ended)
    router.end_probe()
    router.wait_for_banner()
    assert probing.device_name == f"{NAME}-1"


@pytest.mark.parametrize(
    "conflict",
    [
        hexbytes(
            "1234 0120 0001 0000 0000 0000 17 'T5140_00-11-22-AA-BB-CC' 03 'lan' 00 001C 0001"
        ),
        hexbytes("0000 8400 0000 0000 0000 0000 17 'T5140_00-11-22-AA-BB-CC'"),
    ],
    ids=["a query of another type in another domain", "no more than the label"],
)
def test_any_packet_that_begins_with_the_label_is_a_conflict(lab, router, host, probing, conflict):
    host.send(conflict)
    probing.wait_for_line(REPEAT)
    lab.wait_for_packet(PROBE_1)
    settle(lab, router, PROBE_1)


def test_near_misses_are_no_conflict(router, host, probing):
    host.send(response("18 'T5140_00-11-22-AA-BB-CCX'"))
    host.send(response("17 't5140_00-11-22-AA-BB-CC'"))
    host.send(hexbytes("0000 8400 0000 0000 0000 0000 17 'T5140_00-11-22-AA-BB-C'"))
    router.end_probe()
    router.wait_for_banner()
    assert probing.device_name == NAME
    assert REPEAT not in probing.texts()


@pytest.mark.seconds(8)
def test_eleven_foreign_packets_and_silence_end_with_the_timeout(router, host, probing):
    for _ in range(11):
        host.send(HARMLESS)
    router.wait_for_banner()
    assert probing.count(TIMEOUT) == 1
    assert LIMIT not in probing.texts()


def test_twelfth_foreign_packet_ends_the_listening(router, host, probing):
    for _ in range(12):
        host.send(HARMLESS)
    router.wait_for_banner()
    assert probing.count(LIMIT) == 1
    assert TIMEOUT not in probing.texts()


def test_own_packets_count_but_are_not_compared(router, probing):
    with router.network.entered(), socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as own:
        own.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(router.address))
        for _ in range(12):
            own.sendto(SAME, ("224.0.0.251", 5353))
    router.wait_for_banner()
    assert probing.count(LIMIT) == 1
    assert REPEAT not in probing.texts()
    assert probing.device_name == NAME


def test_name_with_a_suffix_is_answered(lab, router, host, probing):
    host.send(SAME)
    lab.wait_for_packet(PROBE_1)
    settle(lab, router, PROBE_1)
    lab.wait_for_packet(PROBE_1, count=6)
    assert lab.ask(PROBE_1) == [
        hexbytes(
            "0000 8400 0000 0001 0000 0000"
            "19 'T5140_00-11-22-AA-BB-CC-1' 05 'local' 00 0001 0001 00000078 0004 C0A84D01"
        )
    ]
    assert lab.ask(PROBE) == []


def test_name_with_a_suffix_is_in_the_records_of_a_printer(
    lab, router, host, probing, announcement
):
    host.send(SAME)
    lab.wait_for_packet(PROBE_1)
    settle(lab, router, PROBE_1)
    router.plug_in(0)
    answers = announcement("_ipp._tcp.local").answers
    assert answers[0].name == f"{NAME}-1.local"
    assert answers[2].data == (631, f"{NAME}-1.local")
    assert f"note={NAME}-1" in answers[3].data
