"""Questions for the host name."""

import socket

import pytest
import wire
from lab.packets import hexbytes

HEADER = wire.QUERY_1
LABEL = "17 'T5140_00-11-22-AA-BB-CC'"


def test_question_is_answered_with_one_record_sent_three_times(lab, daemon, host):
    since = lab.capture.mark()
    host.send(wire.HOST_QUESTION)
    for packet in lab.wait_for_transmissions(wire.HOST_ANSWER, since):
        assert (packet.source, packet.source_port) == ("192.168.77.1", 5353)
        assert (packet.destination, packet.port) == ("224.0.0.251", 5353)


def test_answer_is_logged_with_the_senders_address_and_the_length(lab, daemon, host):
    host.send(wire.HOST_QUESTION)
    daemon.wait_for_line("[Bonjour] answer(192.168.77.1) query target from 192.168.77.10 (47)")


ANSWERED = [
    ("lower case", f"{HEADER} 17 't5140_00-11-22-aa-bb-cc' 05 'local' 00 0001 0001"),
    ("mixed case", f"{HEADER} 17 't5140_00-11-22-AA-bb-Cc' 05 'LOCAL' 00 0001 0001"),
    ("another domain", f"{HEADER} {LABEL} 05 'house' 00 0001 0001"),
    ("unicast wanted", f"{HEADER} {LABEL} 05 'local' 00 0001 8001"),
    ("another class", f"{HEADER} {LABEL} 05 'local' 00 0001 0003"),
    ("high type byte", f"{HEADER} {LABEL} 05 'local' 00 0101 0001"),
    ("no domain, type where the name ends", f"{HEADER} {LABEL} 00 0000000000000001"),
    ("label cut at a zero", f"{HEADER} 1A 'T5140_00-11-22-AA-BB-CC' 00 'xy'"
     " 05 'local' 00 0001 0001"),
    ("no questions claimed", f"{'0000 ' * 6} {LABEL} 05 'local' 00 0001 0001"),
    ("an ID", f"1234 0000 0001 0000 0000 0000 {LABEL} 05 'local' 00 0001 0001"),
    ("second flags byte", f"0000 00FF 0001 0000 0000 0000 {LABEL}"
     " 05 'local' 00 0001 0001"),
    ("a question after", f"0000 0000 0002 0000 0000 0000 {LABEL}"
     " 05 'local' 00 0001 0001 05 'other' 05 'local' 00 0001 0001"),
    ("known answer", f"0000 0000 0001 0001 0000 0000 {LABEL} 05 'local' 00 0001 0001"
     " C00C 0001 0001 00000078 0004 C0A84D01"),
]  # fmt: skip


@pytest.mark.seconds(15)
def test_questions_are_answered(lab, daemon):
    for name, question in ANSWERED:
        assert lab.ask(hexbytes(question)) == [wire.HOST_ANSWER], name


NOT_ANSWERED = [
    ("ANY", f"{HEADER} {LABEL} 05 'local' 00 00FF 0001"),
    ("AAAA", f"{HEADER} {LABEL} 05 'local' 00 001C 0001"),
    ("PTR", f"{HEADER} {LABEL} 05 'local' 00 000C 0001"),
    ("a letter more", f"{HEADER} 18 'T5140_00-11-22-AA-BB-CCX' 05 'local' 00 0001 0001"),
    ("a letter less", f"{HEADER} 16 'T5140_00-11-22-AA-BB-C' 05 'local' 00 0001 0001"),
    ("another name", f"{HEADER} 17 'T5140_00-11-22-AA-BB-CD' 05 'local' 00 0001 0001"),
    ("zero first", f"{HEADER} 18 00 'T5140_00-11-22-AA-BB-CC' 05 'local' 00 0001 0001"),
    ("root", f"{HEADER} 00 0001 0001"),
    ("in the second question", f"0000 0000 0002 0000 0000 0000 05 'other' 05 'local'"
     f" 00 0001 0001 {LABEL} 05 'local' 00 0001 0001"),
    ("as the second label", f"{HEADER} 01 'a' {LABEL} 05 'local' 00 0001 0001"),
    ("recursion desired", f"0000 0100 0001 0000 0000 0000 {LABEL}"
     " 05 'local' 00 0001 0001"),
    ("truncated flag", f"0000 0200 0001 0000 0000 0000 {LABEL}"
     " 05 'local' 00 0001 0001"),
    ("opcode", f"0000 0800 0001 0000 0000 0000 {LABEL} 05 'local' 00 0001 0001"),
    ("response", f"0000 8400 0001 0000 0000 0000 {LABEL} 05 'local' 00 0001 0001"),
]  # fmt: skip


@pytest.mark.seconds(15)
def test_questions_are_neither_answered_nor_logged(lab, daemon):
    for name, question in NOT_ANSWERED:
        before = daemon.mark()
        assert lab.ask(hexbytes(question)) == [], name
        marker, *others = daemon.texts(since=before)
        assert others == [] and "192.168.77.250" in marker, name


def test_question_from_an_ephemeral_port_is_answered_by_multicast(lab, daemon, host):
    assert lab.ask(wire.HOST_QUESTION, port=0) == [wire.HOST_ANSWER]
    answers = lab.capture.seen(lambda packet: packet.payload == wire.HOST_ANSWER)
    assert {(packet.destination, packet.port) for packet in answers} == {("224.0.0.251", 5353)}


def test_question_sent_to_the_router_alone_is_answered_by_multicast(lab, daemon, host):
    since, lines = lab.capture.mark(), daemon.mark()
    host.send(wire.HOST_QUESTION, to=("192.168.77.1", 5353))
    assert lab.answers(since, lines) == [wire.HOST_ANSWER]


def test_every_question_is_answered_again(lab, daemon, host):
    since, lines = lab.capture.mark(), daemon.mark()
    for _ in range(3):
        host.send(wire.HOST_QUESTION)
    assert lab.answers(since, lines) == [wire.HOST_ANSWER] * 3


def test_any_host_on_the_link_is_answered(lab, daemon):
    for asker in (lab.add_host(), lab.add_host()):
        assert lab.ask(wire.HOST_QUESTION, host=asker) == [wire.HOST_ANSWER]


def test_question_from_the_routers_own_address_is_ignored(lab, router, daemon):
    before = daemon.texts()
    since, lines = lab.capture.mark(), daemon.mark()
    with router.network.entered(), socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as own:
        own.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(router.address))
        own.sendto(wire.HOST_QUESTION, ("224.0.0.251", 5353))
    assert lab.answers(since, lines) == []
    assert len(daemon.texts()) == len(before) + 1


def test_questions_of_any_length_do_no_harm(lab, daemon, host):
    for length in (0, 1, 11, 12, 13, 36, 44):
        host.send(wire.HOST_QUESTION[:length])
    for length in (64, 255):
        host.send((bytes(12) + bytes([length]) + b"T5140_00-11-22-AA-BB-CC" + bytes(length))[:213])
    assert lab.ask(wire.HOST_QUESTION)[-1] == wire.HOST_ANSWER


def test_datagram_of_the_greatest_size_does_no_harm(lab, daemon, host):
    host.send(b"\x00" * 12 + b"\xff" * 1460)
    assert lab.ask(wire.HOST_QUESTION) == [wire.HOST_ANSWER]
