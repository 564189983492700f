"""Printers that come and go: what is logged, announced and withdrawn."""

import wire
from lab.packets import hexbytes
from lab.printers import Printer

PDL = "_pdl-datastream._tcp.local"
IPP = "_ipp._tcp.local"
BROWSE_IPP = hexbytes(f"{wire.QUERY_1} {wire.IPP} 000C 0001")


def announces(service_type):
    """Predicate for the announcement of a service of that type."""
    return lambda packet: (
        not packet.is_query
        and any(record.name == service_type and record.ttl for record in packet.message.answers)
    )


def withdraws(packet):
    return not packet.is_query and packet.message.answers[0].ttl == 0


def instances(packets):
    """(instance name, port) of each announced service, in the order of the packets."""
    services = [packet.message.answers[2] for packet in packets]
    return [(record.name, record.data[0]) for record in services]


def test_printer_is_logged_probed_and_announced(lab, router, daemon):
    router.plug_in(0)
    daemon.wait_for_line("[Bonjour] device insert lp0")
    for payload in (wire.PDL_PROBE, wire.PDL_RECORDS, wire.IPP_PROBE, wire.IPP_RECORDS):
        lab.wait_for_transmissions(payload)


def test_raw_port_service_is_announced_before_ipp(lab, router, daemon):
    # Threads that were started one after the other may send in any order: what is certain is the
    # order of the registry, in which a question for both is answered.
    router.plug_in(0)
    daemon.wait_for_line("[Bonjour] device insert lp0")
    lab.wait_for_transmissions(wire.IPP_RECORDS)
    lab.wait_for_transmissions(wire.PDL_RECORDS)
    lab.ask(hexbytes(f"{wire.QUERY_2} {wire.IPP} 000C 0001 {wire.PDL} 000C 0001"))
    texts = [text.split()[3] for text in daemon.texts() if "192.168.77.10 " in text]
    assert texts == ["_pdl-datastream", "_ipp"]


def test_removed_printer_is_logged_and_withdrawn_with_its_two_goodbyes(
    lab, router, daemon_with_printer
):
    since = lab.capture.mark()
    router.pull_out(0)
    daemon_with_printer.wait_for_line("[Bonjour] device remove lp0")
    lab.wait_for_transmissions(wire.PDL_GOODBYE, since)
    lab.wait_for_transmissions(wire.IPP_GOODBYE, since)
    assert len(lab.sent(since)) == 6


def test_unchanged_printer_stays_as_it_is(lab, router, daemon_with_printer):
    since, lines = lab.capture.mark(), daemon_with_printer.mark()
    router.status_file.replace(Printer(0).record())
    router.status_file.wait_until_read()
    router.plug_in(5, "Acme", "Jet", "PCL")
    lab.wait_for_packet(announces(IPP), since, count=3)
    lab.wait_for_packet(announces(PDL), since, count=3)
    assert daemon_with_printer.texts(since=lines) == ["[Bonjour] device insert lp5"]
    assert {name for name, _ in instances(lab.capture.seen(announces(IPP), since))} == {
        f"Acme Jet (aa:bb:cc) 5.{IPP}"
    }


def test_printer_that_was_there_at_the_start_is_published(lab, router):
    router.plug_in(3)
    daemon = router.start()
    daemon.wait_for_line("[Bonjour] device insert lp3")
    announced = lab.wait_for_packet(announces(PDL))
    assert instances(announced) == [(f"HP Model 12 (aa:bb:cc) 3.{PDL}", 9103)]


def test_printer_comes_back_under_the_same_name(lab, router, daemon_with_printer):
    router.pull_out(0)
    lab.wait_for_transmissions(wire.PDL_GOODBYE)
    lab.wait_for_transmissions(wire.IPP_GOODBYE)
    since = lab.capture.mark()
    router.plug_in(0)
    daemon_with_printer.wait_for_line("[Bonjour] device insert lp0", count=2)
    lab.wait_for_transmissions(wire.PDL_RECORDS, since)
    lab.wait_for_transmissions(wire.IPP_RECORDS, since)
    assert daemon_with_printer.texts("stderr") == []


def test_ten_printers_come_and_go_at_once(lab, router, daemon):
    since = lab.capture.mark()
    router.plug_in_all(Printer(port, "Acme", f"Jet {port}", "PCL") for port in range(10))
    ipp = lab.wait_for_packet(announces(IPP), since, count=30)
    pdl = lab.wait_for_packet(announces(PDL), since, count=30)
    assert set(instances(ipp)) == {
        (f"Acme Jet {port} (aa:bb:cc) {port}.{IPP}", 631) for port in range(10)
    }
    assert set(instances(pdl)) == {
        (f"Acme Jet 0 (aa:bb:cc) 0.{PDL}", 9100),
        (f"Acme Jet 1 (aa:bb:cc) 1.{PDL}", 9101),
        (f"Acme Jet 2 (aa:bb:cc) 2.{PDL}", 9102),
        (f"Acme Jet 3 (aa:bb:cc) 3.{PDL}", 9103),
        (f"Acme Jet 4 (aa:bb:cc) 4.{PDL}", 9104),
        (f"Acme Jet 5 (aa:bb:cc) 5.{PDL}", 9105),
        (f"Acme Jet 6 (aa:bb:cc) 6.{PDL}", 9106),
        (f"Acme Jet 7 (aa:bb:cc) 7.{PDL}", 9107),
        (f"Acme Jet 8 (aa:bb:cc) 8.{PDL}", 9108),
        (f"Acme Jet 9 (aa:bb:cc) 9.{PDL}", 9109),
    }
    lab.wait_for_packet(lambda packet: packet.is_query, since, count=60)
    assert len(lab.ask(BROWSE_IPP)) == 10

    since = lab.capture.mark()
    router.pull_out(*range(10))
    gone = lab.wait_for_packet(withdraws, since, count=60)
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


def test_one_of_several_printers_goes(lab, router, daemon_with_printer):
    router.plug_in(1, "Acme", "Jet", "PCL")
    router.plug_in(2, "Acme", "Jet", "PCL")
    lab.wait_for_packet(announces(IPP), count=3 * 3)
    lab.wait_for_packet(announces(PDL), count=3 * 3)
    router.pull_out(1)
    gone = lab.wait_for_packet(withdraws, count=6)
    assert {packet.message.answers[0].data for packet in gone} == {
        f"Acme Jet (aa:bb:cc) 1.{PDL}",
        f"Acme Jet (aa:bb:cc) 1.{IPP}",
    }
    assert len(lab.ask(BROWSE_IPP)) == 2


def test_changed_model_line_leaves_the_old_service_and_is_removed_under_the_new_name(
    lab, router, daemon_with_printer
):
    router.plug_in(0, "HP", "Model 13", "PJL,PCL")
    router.status_file.wait_until_read()
    assert lab.ask(BROWSE_IPP) == [wire.IPP_RECORDS]
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
        "**********UnRegisterOneService error*************",
        "[Bonjour] this service: HP Model 13 (aa:bb:cc) 0 _ipp._tcp .local is not registered",
        "[Bonjour] SERVICE_REMOVE error",
        "**********UnRegisterOneService error*************",
    ]
    assert lab.ask(BROWSE_IPP) == [wire.IPP_RECORDS]


def test_service_left_behind_by_a_changed_line_refuses_its_printer(
    lab, router, daemon_with_printer
):
    router.plug_in(0, "HP", "Model 13", "PJL,PCL")
    router.status_file.wait_until_read()
    router.pull_out(0)
    daemon_with_printer.wait_for_line("[Bonjour] device remove lp0")
    daemon_with_printer.wait_for_line("**********UnRegisterOneService error*************", count=2)
    lines = daemon_with_printer.mark()
    router.plug_in(0)
    daemon_with_printer.wait_for_line("**********RegisterOneService error*************", count=2)
    assert daemon_with_printer.texts(since=lines) == [
        "[Bonjour] device insert lp0",
        "[Bonjour] this service: HP Model 12 (aa:bb:cc) 0 _pdl-datastream._tcp .local"
        " is already registered",
        "[Bonjour] SERVICE_ADD error",
        "**********RegisterOneService error*************",
        "[Bonjour] this service: HP Model 12 (aa:bb:cc) 0 _ipp._tcp .local is already registered",
        "[Bonjour] SERVICE_ADD error",
        "**********RegisterOneService error*************",
    ]
    assert lab.ask(BROWSE_IPP) == [wire.IPP_RECORDS]


def test_changed_lines_do_not_change_the_answers(lab, router, daemon_with_printer):
    router.plug_in(0, "HP", "Model 12", "ZJS")
    router.status_file.wait_until_read()
    assert lab.ask(BROWSE_IPP) == [wire.IPP_RECORDS]


def test_long_lines_are_cut_to_a_name_of_128_characters_in_two_labels(lab, router):
    # The name is 60 x M, a blank, 54 x N and " (aa:bb:cc) 0". A label holds 64 characters; the
    # 65th is dropped between two labels.
    lab.allow_malformed(lambda packet: b"\x40MMMM" in packet.payload)
    router.plug_in(0, "M" * 60, "N" * 60, "PCL")
    router.start()
    instance = f"40 '{'M' * 60} NNN' 3F '{'N' * 50} (aa:bb:cc) 0'"
    for record in (
        f"{wire.IPP} 000C 0001 00001194 0092 {instance} {wire.IPP}",
        f"{wire.PDL} 000C 0001 00001194 009D {instance} {wire.PDL}",
    ):
        pointer = hexbytes(record)
        lab.wait_for_packet(lambda packet: pointer in packet.payload, count=3)
    router.pull_out(0)
    lab.wait_for_transmissions(
        hexbytes(f"{wire.RESPONSE_1} {wire.PDL} 000C 0001 00000000 009D {instance} {wire.PDL}")
    )
    lab.wait_for_transmissions(
        hexbytes(
            f"""{wire.RESPONSE_2}
            {wire.IPP} 000C 0001 00000000 0092 {instance} {wire.IPP}
            {wire.UNIVERSAL} 000C 0001 00000000 0092 {instance} {wire.IPP}"""
        )
    )


def test_lines_of_115_characters_together_are_not_cut(lab, router):
    lab.allow_malformed(lambda packet: b"\x40MMMM" in packet.payload)
    router.plug_in(0, "M" * 60, "N" * 54, "PCL")
    router.start()
    name = hexbytes(f"40 '{'M' * 60} NNN' 3F '{'N' * 50} (aa:bb:cc) 0' {wire.IPP}")
    lab.wait_for_packet(lambda packet: name in packet.payload)


def test_name_that_fits_one_label_is_one_label(lab, router):
    router.plug_in(0, "M" * 25, "N" * 25, "PCL")
    router.start()
    name = hexbytes(f"40 '{'M' * 25} {'N' * 25} (aa:bb:cc) 0' {wire.IPP}")
    lab.allow_malformed(lambda packet: b"\x40MMMM" in packet.payload)
    lab.wait_for_packet(lambda packet: name in packet.payload)


def test_dots_in_the_lines_part_the_name_into_labels(lab, router):
    router.plug_in(0, "Acme Inc.", "Jet 1.2", "PCL")
    router.start()
    name = hexbytes(f"08 'Acme Inc' 06 ' Jet 1' 0E '2 (aa:bb:cc) 0' {wire.IPP}")
    lab.wait_for_packet(lambda packet: name in packet.payload)
