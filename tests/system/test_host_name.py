"""Questions for the host name."""

import socket

import wire
from lab.packets import hexbytes

HEADER = wire.QUERY_1
LABEL = "17 'T5140_00-11-22-AA-BB-CC'"


def test_question_is_answered_with_one_record_sent_three_times_and_a_line(lab, daemon, host):
    since = lab.capture.mark()
    host.send(wire.HOST_QUESTION)
    for packet in lab.wait_for_transmissions(wire.HOST_ANSWER, since):
        assert (packet.source, packet.source_port) == ("192.168.77.1", 5353)
        assert (packet.destination, packet.port) == ("224.0.0.251", 5353)
    daemon.wait_for_line("[Bonjour] answer(192.168.77.1) query target from 192.168.77.10 (47)")


ANSWERED = [
    ("mixed case", f"{HEADER} 17 't5140_00-11-22-AA-bb-Cc' 05 'LOCAL' 00 0001 0001"),
    ("another domain, class and ID", "1234 0000 0001 0000 0000 0000"
     f" {LABEL} 05 'house' 00 0001 8003"),
    ("no questions claimed", f"{'0000 ' * 6} {LABEL} 05 'local' 00 0001 0001"),
    ("known answer", f"0000 0000 0001 0001 0000 0000 {LABEL} 05 'local' 00 0001 0001"
     " C00C 0001 0001 00000078 0004 C0A84D01"),
]  # fmt: skip

NOT_ANSWERED = [
    ("ANY", f"{HEADER} {LABEL} 05 'local' 00 00FF 0001"),
    ("a letter more", f"{HEADER} 18 'T5140_00-11-22-AA-BB-CCX' 05 'local' 00 0001 0001"),
    ("in the second question", f"0000 0000 0002 0000 0000 0000 05 'other' 05 'local'"
     f" 00 0001 0001 {LABEL} 05 'local' 00 0001 0001"),
    ("truncated flag", f"0000 0200 0001 0000 0000 0000 {LABEL}"
     " 05 'local' 00 0001 0001"),
    ("response", f"0000 8400 0001 0000 0000 0000 {LABEL} 05 'local' 00 0001 0001"),
]  # fmt: skip


def test_other_forms_of_the_question_are_answered(lab, daemon):
    for name, question in ANSWERED:
        assert lab.ask(hexbytes(question)) == [wire.HOST_ANSWER], name


def test_other_questions_are_neither_answered_nor_logged(lab, daemon):
    for name, question in NOT_ANSWERED:
        before = daemon.mark()
        assert lab.ask(hexbytes(question)) == [], name
        marker, *others = daemon.texts(since=before)
        assert others == [] and "192.168.77.250" in marker, name


def test_every_question_is_answered_by_multicast_whoever_asks_it_however(lab, daemon, host):
    assert lab.ask(wire.HOST_QUESTION, host=lab.add_host(), port=0) == [wire.HOST_ANSWER]
    since, lines = lab.capture.mark(), daemon.mark()
    for _ in range(3):
        host.send(wire.HOST_QUESTION, to=("192.168.77.1", 5353))
    assert lab.answers(since, lines) == [wire.HOST_ANSWER] * 3
    answers = lab.capture.seen(lambda packet: packet.payload == wire.HOST_ANSWER)
    assert {(packet.destination, packet.port) for packet in answers} == {("224.0.0.251", 5353)}


def test_question_from_the_routers_own_address_is_ignored(lab, router, daemon):
    since, lines = lab.capture.mark(), daemon.mark()
    with router.network.entered(), socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as own:
        own.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(router.address))
        own.sendto(wire.HOST_QUESTION, ("224.0.0.251", 5353))
    assert lab.answers(since, lines) == []
    assert len(daemon.texts(since=lines)) == 1
