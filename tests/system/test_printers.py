"""Printers that come and go: what is logged, announced and withdrawn."""

import wire
from lab.packets import hexbytes
from lab.printers import Printer

PDL = "_pdl-datastream._tcp.local"
IPP = "_ipp._tcp.local"
BROWSE_IPP = hexbytes(f"{wire.QUERY_1} {wire.IPP} 000C 0001")
NOT_UNREGISTERED = "**********UnRegisterOneService error*************"
NOT_REGISTERED = "**********RegisterOneService error*************"


def announces(packet):
    """Whether it is the announcement of a service."""
    return not packet.is_query and len(packet.message.answers) > 3


def withdraws(packet):
    return not packet.is_query and packet.message.answers[0].ttl == 0


def test_printer_is_logged_announced_and_withdrawn_each_time_that_it_comes_and_goes(
    lab, router, daemon
):
    for count in (1, 2):
        since = lab.capture.mark()
        router.plug_in(0)
        daemon.wait_for_line("[Bonjour] device insert lp0", count=count)
        for payload in (wire.PDL_PROBE, wire.PDL_RECORDS, wire.IPP_PROBE, wire.IPP_RECORDS):
            lab.wait_for_transmissions(payload, since)
        since = lab.capture.mark()
        router.pull_out(0)
        daemon.wait_for_line("[Bonjour] device remove lp0", count=count)
        lab.wait_for_transmissions(wire.PDL_GOODBYE, since)
        lab.wait_for_transmissions(wire.IPP_GOODBYE, since)
        assert len(lab.sent(since)) == 6
    assert daemon.texts("stderr") == []
    assert lab.ask(BROWSE_IPP) == []


def test_printer_that_stays_is_left_as_it_is_whatever_its_lines_say(
    lab, router, daemon_with_printer
):
    since, lines = lab.capture.mark(), daemon_with_printer.mark()
    router.plug_in_all([Printer(0, "HP", "Model 12", "ZJS"), Printer(5, "Acme", "Jet", "PCL")])
    announced = lab.wait_for_packet(announces, since, count=6)
    assert daemon_with_printer.texts(since=lines) == ["[Bonjour] device insert lp5"]
    assert {packet.message.answers[2].name for packet in announced} == {
        f"Acme Jet (aa:bb:cc) 5.{PDL}",
        f"Acme Jet (aa:bb:cc) 5.{IPP}",
    }
    router.pull_out(5)
    lab.wait_for_packet(withdraws, since, count=6)
    assert lab.ask(BROWSE_IPP) == [wire.IPP_RECORDS]


def test_ten_printers_come_and_go_at_once(lab, router, daemon):
    router.plug_in_all(Printer(port, "Acme", f"Jet {port}", "PCL") for port in range(10))
    announced = lab.wait_for_packet(announces, count=60)
    services = [packet.message.answers[2] for packet in announced]
    assert {(record.name, record.data[0]) for record in services} == {
        *((f"Acme Jet {port} (aa:bb:cc) {port}.{IPP}", 631) for port in range(10)),
        *((f"Acme Jet {port} (aa:bb:cc) {port}.{PDL}", 9100 + port) for port in range(10)),
    }
    assert len(lab.ask(BROWSE_IPP)) == 10
    router.pull_out(*range(10))
    gone = lab.wait_for_packet(withdraws, count=60)
    assert {packet.message.answers[0].data for packet in gone} == {
        f"Acme Jet {port} (aa:bb:cc) {port}.{service_type}"
        for port in range(10)
        for service_type in (PDL, IPP)
    }
    assert lab.ask(BROWSE_IPP) == []
    assert [text for text in daemon.texts() if "device" in text and "lp" in text] == [
        *(f"[Bonjour] device insert lp{port}" for port in range(10)),
        *(f"[Bonjour] device remove lp{port}" for port in range(10)),
    ]


def test_changed_model_line_leaves_the_old_service_which_refuses_its_printer_until_the_stop(
    lab, router, daemon_with_printer
):
    router.plug_in(0, "HP", "Model 13", "PJL,PCL")
    router.status_file.wait_until_read()
    since, lines = lab.capture.mark(), daemon_with_printer.mark()
    router.pull_out(0)
    gone = lab.wait_for_packet(withdraws, since, count=6)
    assert {packet.message.answers[0].data for packet in gone} == {
        f"HP Model 13 (aa:bb:cc) 0.{PDL}",
        f"HP Model 13 (aa:bb:cc) 0.{IPP}",
    }
    assert daemon_with_printer.texts(since=lines) == [
        "[Bonjour] device remove lp0",
        "[Bonjour] this service: HP Model 13 (aa:bb:cc) 0 _pdl-datastream._tcp .local"
        " is not registered",
        "[Bonjour] SERVICE_REMOVE error",
        NOT_UNREGISTERED,
        "[Bonjour] this service: HP Model 13 (aa:bb:cc) 0 _ipp._tcp .local is not registered",
        "[Bonjour] SERVICE_REMOVE error",
        NOT_UNREGISTERED,
    ]
    lines = daemon_with_printer.mark()
    router.plug_in(0)
    daemon_with_printer.wait_for_line(NOT_REGISTERED, count=2)
    assert daemon_with_printer.texts(since=lines) == [
        "[Bonjour] device insert lp0",
        "[Bonjour] this service: HP Model 12 (aa:bb:cc) 0 _pdl-datastream._tcp .local"
        " is already registered",
        "[Bonjour] SERVICE_ADD error",
        NOT_REGISTERED,
        "[Bonjour] this service: HP Model 12 (aa:bb:cc) 0 _ipp._tcp .local is already registered",
        "[Bonjour] SERVICE_ADD error",
        NOT_REGISTERED,
    ]
    assert lab.ask(BROWSE_IPP) == [wire.IPP_RECORDS]
    since = lab.capture.mark()
    router.stop()
    lab.wait_for_transmissions(wire.PDL_GOODBYE, since)
    lab.wait_for_transmissions(wire.IPP_GOODBYE, since)


def test_long_lines_are_cut_to_a_name_of_128_characters_in_two_labels(lab, router):
    # The name is 60 x M, a blank, 54 x N and " (aa:bb:cc) 0". A label holds 64 characters; the
    # 65th is dropped between two labels.
    lab.allow_malformed(lambda packet: b"\x40MMMM" in packet.payload)
    router.plug_in(0, "M" * 60, "N" * 60, "PCL")
    router.start()
    instance = f"40 '{'M' * 60} NNN' 3F '{'N' * 50} (aa:bb:cc) 0'"
    pointer = hexbytes(f"{wire.IPP} 000C 0001 00001194 0092 {instance} {wire.IPP}")
    lab.wait_for_packet(lambda packet: pointer in packet.payload, count=3)
    router.pull_out(0)
    lab.wait_for_transmissions(
        hexbytes(f"{wire.RESPONSE_1} {wire.PDL} 000C 0001 00000000 009D {instance} {wire.PDL}")
    )
