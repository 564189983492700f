"""Printers that come and go: what is logged, announced and withdrawn."""

import pytest
import wire
from lab.browser import IPP
from lab.browser import RAW as PDL
from lab.packets import hexbytes
from lab.printers import Printer

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


def test_nine_printers_come_and_go_and_the_one_that_stays_is_left_alone_whatever_its_lines_say(
    lab, router, daemon_with_printer
):
    names = {
        f"Acme Jet {port} (aa:bb:cc) {port}.{kind}" for port in range(1, 10) for kind in (PDL, IPP)
    }
    since, lines = lab.capture.mark(), daemon_with_printer.mark()
    router.plug_in(0, commands="ZJS")
    router.plug_in_all(Printer(port, "Acme", f"Jet {port}", "PCL") for port in range(1, 10))
    lab.wait_for_packet(announces, since, count=54)
    assert lab.services(since) == names
    assert len(lab.ask(BROWSE_IPP)) == 10
    since = lab.capture.mark()
    router.pull_out(*range(1, 10))
    gone = lab.wait_for_packet(withdraws, since, count=54)
    assert {packet.message.answers[0].data for packet in gone} == names
    assert lab.ask(BROWSE_IPP) == [wire.IPP_RECORDS]
    texts = daemon_with_printer.texts(since=lines)
    assert [text for text in texts if "device" in text] == [
        *(f"[Bonjour] device insert lp{port}" for port in range(1, 10)),
        *(f"[Bonjour] device remove lp{port}" for port in range(1, 10)),
    ]


def test_changed_model_line_leaves_the_old_service_which_refuses_its_printer_until_the_stop(
    lab, router, daemon_with_printer
):
    router.plug_in(0, model="Model 13")
    router.status_file.wait_until_read()
    since = lab.capture.mark()
    router.pull_out(0)
    gone = lab.wait_for_packet(withdraws, since, count=6)
    assert {packet.message.answers[0].data for packet in gone} == {
        f"HP Model 13 (aa:bb:cc) 0.{PDL}",
        f"HP Model 13 (aa:bb:cc) 0.{IPP}",
    }
    daemon_with_printer.wait_for_line(NOT_UNREGISTERED, count=2)
    router.plug_in(0)
    daemon_with_printer.wait_for_line(NOT_REGISTERED, count=2)
    assert lab.ask(BROWSE_IPP) == [wire.IPP_RECORDS]
    since = lab.capture.mark()
    router.stop()
    lab.wait_for_transmissions(wire.PDL_GOODBYE, since)
    lab.wait_for_transmissions(wire.IPP_GOODBYE, since)


@pytest.mark.release
def test_longest_answer_fits_an_ethernet_frame(lab, router):
    """The longest name, cut and in two labels, and the longest text that a printer can have."""
    commands = ",".join(f"LANG{number:02}XXXX" for number in range(4))
    router.plug_in(0, "M" * 51, "N" * 63, commands)
    assert router.start("GLXE4800b5").device_name == "GLXE4800b5_00-11-22-AA-BB-CC"
    lab.allow_malformed(lambda packet: b"MMM" in packet.payload)
    announced = lab.wait_for_packet(
        lambda packet: packet.payload[2] == 0x84 and b"_universal" in packet.payload
    )
    assert 1100 < len(announced[0].payload) <= 1500 - 28
