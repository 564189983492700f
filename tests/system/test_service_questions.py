"""Questions that name a printer's services."""

import pytest
import wire
from lab.packets import hexbytes

pytestmark = pytest.mark.release

BROWSE_IPP = hexbytes(f"{wire.QUERY_1} {wire.IPP} 000C 0001")
BROWSE_PDL = hexbytes(f"{wire.QUERY_1} {wire.PDL} 000C 0001")
IPP_LINE = "[Bonjour] answer(192.168.77.1) query _ipp from 192.168.77.10 (33)"
PDL_LINE = "[Bonjour] answer(192.168.77.1) query _pdl-datastream from 192.168.77.10 (44)"


def test_browse_question_is_answered_with_the_five_records_of_ipp(lab, daemon_with_printer):
    assert lab.ask(BROWSE_IPP) == [wire.IPP_RECORDS]
    assert daemon_with_printer.count(IPP_LINE) == 1


def test_browse_question_is_answered_with_the_four_records_of_the_raw_port(
    lab, daemon_with_printer
):
    assert lab.ask(BROWSE_PDL) == [wire.PDL_RECORDS]
    assert daemon_with_printer.count(PDL_LINE) == 1


def test_answer_is_sent_three_times_by_multicast(lab, daemon_with_printer, host):
    since = lab.capture.mark()
    host.send(BROWSE_IPP, port=0)
    for packet in lab.wait_for_transmissions(wire.IPP_RECORDS, since):
        assert (packet.source_port, packet.destination, packet.port) == (
            *(5353, "224.0.0.251"),
            5353,
        )


ANSWERED_WITH_IPP = [
    ("subtype", f"{wire.QUERY_1} {wire.UNIVERSAL} 000C 0001"),
    ("instance", f"{wire.QUERY_1} {wire.INSTANCE} {wire.IPP} 0021 0001"),
    ("instance, TXT", f"{wire.QUERY_1} {wire.INSTANCE} {wire.IPP} 0010 0001"),
    ("instance, ANY", f"{wire.QUERY_1} {wire.INSTANCE} {wire.IPP} 00FF 0001"),
    ("another protocol and domain", f"{wire.QUERY_1} 04 '_ipp' 04 '_udp' 07 'example' 00"
     " 000C 0001"),
    ("label alone", f"{wire.QUERY_1} 04 '_ipp' 00 000C 0001"),
    ("another type", f"{wire.QUERY_1} {wire.IPP} 0001 0001"),
    ("another class, unicast wanted", f"{wire.QUERY_1} {wire.IPP} 000C 8003"),
    ("name continued by a pointer", f"{wire.QUERY_1} 04 '_ipp' C00C 000C 0001"),
    ("nothing after the label", f"{wire.QUERY_1} 04 '_ipp'"),
    ("no questions claimed", f"{'0000 ' * 6} {wire.IPP} 000C 0001"),
    ("more questions claimed", f"0000 0000 0005 0000 0000 0000 {wire.IPP} 000C 0001"),
    ("another question first", f"{wire.QUERY_2} 05 'other' 05 'local' 00 0001 0001"
     f" {wire.IPP} 000C 0001"),
    ("after a question that ends in a pointer", f"{wire.QUERY_2} 01 'x' C00C 0001 0001"
     f" {wire.IPP} 000C 0001"),
    ("after a question that is a pointer", f"{wire.QUERY_2} C00C 0001 0001"
     f" {wire.IPP} 000C 0001"),
    ("after the root", f"{wire.QUERY_2} 00 0001 0001 {wire.IPP} 000C 0001"),
    ("type asked twice", f"{wire.QUERY_2} {wire.IPP} 000C 0001 {wire.IPP} 000C 0001"),
    ("known answer", f"0000 0000 0001 0001 0000 0000 {wire.IPP} 000C 0001"
     f" C00C 000C 0001 00001194 002A {wire.INSTANCE} {wire.IPP}"),
]  # fmt: skip


@pytest.mark.seconds(20)
def test_questions_are_answered_with_the_records_of_ipp(lab, daemon_with_printer):
    for name, question in ANSWERED_WITH_IPP:
        assert lab.ask(hexbytes(question)) == [wire.IPP_RECORDS], name


def test_question_for_an_instance_is_answered_with_its_records(lab, daemon_with_printer):
    question = hexbytes(f"{wire.QUERY_1} {wire.INSTANCE} {wire.PDL} 0021 0001")
    assert lab.ask(question) == [wire.PDL_RECORDS]


NOT_ANSWERED = [
    ("upper case", f"{wire.QUERY_1} 04 '_IPP' 04 '_tcp' 05 'local' 00 000C 0001"),
    ("no such service", f"{wire.QUERY_1} 08 '_printer' 04 '_tcp' 05 'local' 00 000C 0001"),
    ("beginning of a label", f"{wire.QUERY_1} 03 '_ip' 04 '_tcp' 05 'local' 00 000C 0001"),
    ("longer label", f"{wire.QUERY_1} 05 '_ipps' 04 '_tcp' 05 'local' 00 000C 0001"),
    ("another instance", f"{wire.QUERY_1} 05 'Other' {wire.IPP} 0021 0001"),
    ("instance in another case", f"{wire.QUERY_1} 18 'hp model 12 (aa:bb:cc) 0' {wire.IPP}"
     " 0021 0001"),
    ("beginning of an instance", f"{wire.QUERY_1} 0B 'HP Model 12' {wire.IPP} 0021 0001"),
    ("subtype of another type", f"{wire.QUERY_1} 0A '_universal' 04 '_sub' {wire.PDL}"
     " 000C 0001"),
    ("subtype of a service that is not there", f"{wire.QUERY_1} 0A '_universal' 04 '_sub'"
     " 08 '_printer' 04 '_tcp' 05 'local' 00 000C 0001"),
    ("another subtype", f"{wire.QUERY_1} 06 '_other' 04 '_sub' {wire.IPP} 000C 0001"),
    ("instance that goes on in a pointer", f"{wire.QUERY_2} 05 'Other' {wire.IPP} 000C 0001"
     f" {wire.INSTANCE} C012 0021 0001"),
    ("other pointer bytes are lengths", f"{wire.QUERY_2} C10C 0001 0001 {wire.IPP}"
     " 000C 0001"),
    ("reserved length bits", f"{wire.QUERY_2} 40 0C 0001 0001 {wire.IPP} 000C 0001"),
    ("only in the known answers", "0000 0000 0001 0001 0000 0000"
     f" 08 '_printer' 04 '_tcp' 05 'local' 00 000C 0001"
     f" {wire.IPP} 000C 0001 00001194 002A {wire.INSTANCE} {wire.IPP}"),
    ("beyond the questions claimed", f"{wire.QUERY_1} 05 'other' 05 'local' 00 0001 0001"
     f" {wire.IPP} 000C 0001"),
    ("label cut short", f"{wire.QUERY_1} 04 '_ip'"),
    ("length alone", f"{wire.QUERY_1} 04"),
    ("recursion desired", f"0000 0100 0001 0000 0000 0000 {wire.IPP} 000C 0001"),
    ("response", f"0000 8400 0001 0000 0000 0000 {wire.IPP} 000C 0001"),
]  # fmt: skip


@pytest.mark.seconds(20)
def test_questions_are_not_answered(lab, daemon_with_printer):
    for name, question in NOT_ANSWERED:
        before = daemon_with_printer.mark()
        assert lab.ask(hexbytes(question)) == [], name
        assert len(daemon_with_printer.texts(since=before)) == 1, name


def test_bytes_left_from_an_earlier_packet_are_no_question(lab, daemon_with_printer, host):
    lab.ask(BROWSE_IPP)
    assert lab.ask(BROWSE_IPP[:13]) == []
    assert lab.ask(BROWSE_IPP[:16]) == []


def test_two_questions_are_answered_with_a_packet_each_in_the_order_of_registration(
    lab, daemon_with_printer
):
    questions = hexbytes(f"{wire.QUERY_2} {wire.IPP} 000C 0001 {wire.PDL} 000C 0001")
    assert sorted(lab.ask(questions)) == sorted([wire.PDL_RECORDS, wire.IPP_RECORDS])
    texts = [text for text in daemon_with_printer.texts() if "192.168.77.10 " in text]
    assert texts == [
        "[Bonjour] answer(192.168.77.1) query _pdl-datastream from 192.168.77.10 (65)",
        "[Bonjour] answer(192.168.77.1) query _ipp from 192.168.77.10 (65)",
    ]


def test_every_question_is_answered_again(lab, daemon_with_printer, host):
    since, lines = lab.capture.mark(), daemon_with_printer.mark()
    for _ in range(4):
        host.send(BROWSE_IPP)
    assert lab.answers(since, lines) == [wire.IPP_RECORDS] * 4


def test_question_is_answered_while_the_service_is_announced(lab, router, daemon):
    router.plug_in(0)
    lab.wait_for_packet(wire.PDL_RECORDS)
    lab.wait_for_packet(wire.IPP_RECORDS)
    assert lab.ask(BROWSE_IPP) == [wire.IPP_RECORDS]


def test_host_name_question_is_answered_with_the_cache_flush_bit_clear(lab, daemon_with_printer):
    assert lab.ask(wire.HOST_QUESTION) == [wire.HOST_ANSWER]


def test_host_name_in_front_of_a_service_hides_the_service(lab, daemon_with_printer):
    both = hexbytes(f"{wire.QUERY_2} {wire.HOST} 0001 0001 {wire.IPP} 000C 0001")
    assert lab.ask(both) == [wire.HOST_ANSWER]


def test_name_of_a_removed_service_is_not_answered(lab, router, daemon_with_printer):
    router.pull_out(0)
    lab.wait_for_transmissions(wire.PDL_GOODBYE)
    lab.wait_for_transmissions(wire.IPP_GOODBYE)
    assert lab.ask(BROWSE_IPP) == []
    assert lab.ask(BROWSE_PDL) == []


def test_question_for_a_type_is_answered_for_each_printer(lab, router):
    router.plug_in(0)
    router.plug_in(7, "Acme", "Jet", "PCL")
    router.start()
    lab.wait_for_packet(lambda packet: True, count=3 + 8 * 3)
    names = [answer[-50:] for answer in lab.ask(BROWSE_IPP)]
    assert len(names) == 2
    assert sum(b"HP Model 12 (aa:bb:cc) 0" in name for name in names) == 1
    assert sum(b"Acme Jet (aa:bb:cc) 7" in name for name in names) == 1
