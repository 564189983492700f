"""Questions for the host name and for a printer's services: what is answered, and how."""

import socket

import pytest
import wire
from lab.capture import MDNS_GROUP, MDNS_PORT
from lab.packets import hexbytes

SERVICES = "09 '_services' 07 '_dns-sd' 04 '_udp' 05 'local' 00"
REVERSE = "03 '254' 02 '77' 03 '168' 03 '192' 07 'in-addr' 04 'arpa' 00"
BROWSE_IPP = hexbytes(f"{wire.QUERY_1} {wire.IPP} 000C 0001")
KNOWN_ADDRESS = f"C00C 0001 0001 {wire.TTL_120} {wire.ADDRESS}"
KNOWN_POINTER = f"C00C 000C 0001 {wire.TTL_4500} 002A {wire.INSTANCE} {wire.IPP}"

ANSWERED = [
    ("host name, no question claimed: mixed case, another domain, class and ID, known answer",
     f"1234 0000 0000 0001 0000 0000 17 't5140_00-11-22-AA-bb-Cc' 05 'house' 00 0001 8003"
     f" {KNOWN_ADDRESS}", [wire.HOST_ANSWER]),
    ("subtype, response code, known answer",
     f"0000 0003 0001 0001 0000 0000 {wire.UNIVERSAL} 000C 0001 {KNOWN_POINTER}",
     [wire.IPP_RECORDS]),
    ("instance, ANY, after a question that ends in a pointer",
     f"{wire.QUERY_2} 01 'x' C00C 0001 0001 {wire.INSTANCE} {wire.IPP} 00FF 8001",
     [wire.IPP_RECORDS]),
    ("each service asked for",
     f"{wire.QUERY_2} {wire.IPP} 000C 0001 {wire.PDL} 000C 0001",
     [wire.IPP_RECORDS, wire.PDL_RECORDS]),
    ("host name in front of a service hides the service",
     f"{wire.QUERY_2} {wire.HOST} 0001 0001 {wire.IPP} 000C 0001", [wire.HOST_ANSWER]),
]  # fmt: skip

NOT_ANSWERED = [
    ("ANY of the host name", f"{wire.QUERY_1} {wire.HOST} 00FF 0001"),
    ("host name in the second question",
     f"{wire.QUERY_2} 05 'other' 05 'local' 00 0001 0001 {wire.HOST} 0001 0001"),
    ("response", f"0000 8400 0001 0000 0000 0000 {wire.HOST} 0001 0001"),
    ("conflict over a service name",
     f"{wire.RESPONSE_1} {wire.INSTANCE} {wire.IPP} 0021 8001 {wire.TTL_120}"
     " 0013 0000 0000 0277 05 'other' 05 'local' 00"),
    ("truncated flag", f"0000 0200 0001 0000 0000 0000 {wire.IPP} 000C 0001"),
    ("service in upper case", f"{wire.QUERY_1} 04 '_IPP' 04 '_tcp' 05 'local' 00 000C 0001"),
    ("instance that goes on in a pointer", f"{wire.QUERY_2} 05 'Other' {wire.IPP} 000C 0001"
     f" {wire.INSTANCE} C012 0021 0001"),
    ("service types", f"{wire.QUERY_1} {SERVICES} 000C 0001"),
    ("reverse name", f"{wire.QUERY_1} {REVERSE} 000C 0001"),
]  # fmt: skip


def test_host_name_is_answered_with_one_record_sent_three_times_and_a_line(lab, daemon, host):
    since = lab.capture.mark()
    host.send(wire.HOST_QUESTION)
    for packet in lab.wait_for_transmissions(wire.HOST_ANSWER, since):
        assert (packet.source, packet.source_port) == ("192.168.77.1", MDNS_PORT)
        assert (packet.destination, packet.port) == (MDNS_GROUP, MDNS_PORT)
        assert packet.ttl == 1
    daemon.wait_for_line("[Bonjour] answer(192.168.77.1) query target from 192.168.77.10 (47)")


@pytest.mark.release
@pytest.mark.seconds(8)
def test_other_forms_of_a_question_are_answered(lab, daemon_with_printer):
    for name, question, answers in ANSWERED:
        assert sorted(lab.ask(hexbytes(question))) == sorted(answers), name


@pytest.mark.release
@pytest.mark.seconds(8)
def test_other_questions_are_neither_answered_nor_logged(lab, daemon_with_printer):
    for name, question in NOT_ANSWERED:
        before = daemon_with_printer.mark()
        assert lab.ask(hexbytes(question)) == [], name
        marker, *others = daemon_with_printer.texts(since=before)
        assert others == [] and "192.168.77.250" in marker, name
    assert lab.ask(BROWSE_IPP) == [wire.IPP_RECORDS]


def test_each_question_is_answered_by_multicast_whoever_asks_it_however(lab, daemon, host):
    assert lab.ask(wire.HOST_QUESTION, host=lab.add_host("10.1.2.3"), port=0) == [wire.HOST_ANSWER]
    since, lines = lab.capture.mark(), daemon.mark()
    for _ in range(3):
        host.send(wire.HOST_QUESTION, to=("192.168.77.1", MDNS_PORT))
    assert lab.answers(since, lines) == [wire.HOST_ANSWER] * 3
    answers = lab.capture.seen(lambda packet: packet.payload == wire.HOST_ANSWER)
    assert {(packet.destination, packet.port) for packet in answers} == {(MDNS_GROUP, MDNS_PORT)}


def test_question_from_the_routers_own_address_is_ignored(lab, router, daemon):
    since, lines = lab.capture.mark(), daemon.mark()
    with router.network.entered(), socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as own:
        own.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(router.address))
        own.sendto(wire.HOST_QUESTION, (MDNS_GROUP, MDNS_PORT))
    assert lab.answers(since, lines) == []
    assert len(daemon.texts(since=lines)) == 1


def test_question_is_answered_while_the_service_is_announced(lab, router, daemon):
    router.plug_in(0)
    lab.wait_for_packet(wire.PDL_RECORDS)
    lab.wait_for_packet(wire.IPP_RECORDS)
    assert lab.ask(BROWSE_IPP) == [wire.IPP_RECORDS]
