"""Questions that name a printer's services."""

import pytest
import wire
from lab.packets import hexbytes

pytestmark = pytest.mark.release

BROWSE_IPP = hexbytes(f"{wire.QUERY_1} {wire.IPP} 000C 0001")
BROWSE_PDL = hexbytes(f"{wire.QUERY_1} {wire.PDL} 000C 0001")

ANSWERED_WITH_IPP = [
    ("subtype", f"{wire.QUERY_1} {wire.UNIVERSAL} 000C 0001"),
    ("instance, ANY", f"{wire.QUERY_1} {wire.INSTANCE} {wire.IPP} 00FF 0001"),
    ("another protocol, type and class", f"{wire.QUERY_1} 04 '_ipp' 04 '_udp' 00 0001 8003"),
    ("after a question that ends in a pointer", f"{wire.QUERY_2} 01 'x' C00C 0001 0001"
     f" {wire.IPP} 000C 0001"),
    ("known answer", f"0000 0000 0001 0001 0000 0000 {wire.IPP} 000C 0001"
     f" C00C 000C 0001 00001194 002A {wire.INSTANCE} {wire.IPP}"),
]  # fmt: skip

NOT_ANSWERED = [
    ("upper case", f"{wire.QUERY_1} 04 '_IPP' 04 '_tcp' 05 'local' 00 000C 0001"),
    ("another instance", f"{wire.QUERY_1} 05 'Other' {wire.IPP} 0021 0001"),
    ("subtype of another type", f"{wire.QUERY_1} 0A '_universal' 04 '_sub' {wire.PDL}"
     " 000C 0001"),
    ("instance that goes on in a pointer", f"{wire.QUERY_2} 05 'Other' {wire.IPP} 000C 0001"
     f" {wire.INSTANCE} C012 0021 0001"),
    ("only in the known answers", "0000 0000 0001 0001 0000 0000"
     f" 08 '_printer' 04 '_tcp' 05 'local' 00 000C 0001"
     f" {wire.IPP} 000C 0001 00001194 002A {wire.INSTANCE} {wire.IPP}"),
    ("truncated", f"0000 0200 0001 0000 0000 0000 {wire.IPP} 000C 0001"),
]  # fmt: skip


@pytest.mark.seconds(8)
def test_other_forms_of_the_question_are_answered_with_the_records_of_ipp(
    lab, daemon_with_printer
):
    for name, question in ANSWERED_WITH_IPP:
        assert lab.ask(hexbytes(question)) == [wire.IPP_RECORDS], name


@pytest.mark.seconds(8)
def test_other_questions_are_neither_answered_nor_logged(lab, daemon_with_printer):
    for name, question in NOT_ANSWERED:
        before = daemon_with_printer.mark()
        assert lab.ask(hexbytes(question)) == [], name
        assert len(daemon_with_printer.texts(since=before)) == 1, name


def test_bytes_left_from_an_earlier_packet_are_no_question(lab, daemon_with_printer):
    assert lab.ask(BROWSE_IPP) == [wire.IPP_RECORDS]
    assert lab.ask(BROWSE_IPP[:16]) == []


def test_each_service_asked_for_is_answered_each_time_in_the_order_of_registration(
    lab, daemon_with_printer, host
):
    both = hexbytes(f"{wire.QUERY_2} {wire.IPP} 000C 0001 {wire.PDL} 000C 0001")
    since, lines = lab.capture.mark(), daemon_with_printer.mark()
    for question in (BROWSE_PDL, both):
        host.send(question, port=0)
    assert sorted(lab.answers(since, lines)) == sorted(
        [wire.PDL_RECORDS, wire.PDL_RECORDS, wire.IPP_RECORDS]
    )
    texts = [text for text in daemon_with_printer.texts() if "192.168.77.10 " in text]
    assert texts == [
        "[Bonjour] answer(192.168.77.1) query _pdl-datastream from 192.168.77.10 (44)",
        "[Bonjour] answer(192.168.77.1) query _pdl-datastream from 192.168.77.10 (65)",
        "[Bonjour] answer(192.168.77.1) query _ipp from 192.168.77.10 (65)",
    ]
    answers = lab.capture.seen(lambda packet: packet.payload == wire.IPP_RECORDS)
    assert {(packet.destination, packet.port) for packet in answers} == {("224.0.0.251", 5353)}


def test_question_is_answered_while_the_service_is_announced(lab, router, daemon):
    router.plug_in(0)
    lab.wait_for_packet(wire.PDL_RECORDS)
    lab.wait_for_packet(wire.IPP_RECORDS)
    assert lab.ask(BROWSE_IPP) == [wire.IPP_RECORDS]


def test_host_name_in_front_of_a_service_hides_the_service(lab, daemon_with_printer):
    both = hexbytes(f"{wire.QUERY_2} {wire.HOST} 0001 0001 {wire.IPP} 000C 0001")
    assert lab.ask(both) == [wire.HOST_ANSWER]
