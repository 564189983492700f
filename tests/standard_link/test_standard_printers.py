"""What does not depend on the responder, through the standard one: lines, printers, files."""

import re

from lab.dual import IPP, QU, query
from lab.printers import Printer

IPP_TYPE = "_ipp._tcp.local"


def test_lines_of_start_printers_and_stop(dual):
    daemon = dual.start("T5140")
    dual.router.plug_in(0)
    daemon.wait_for_line("[Bonjour] device insert lp0")
    dual.wait_for_record(IPP, "SRV")
    dual.router.pull_out(0)
    dual.wait_for_record(IPP, "SRV", ttl=0)
    dual.router.stop()
    banner = daemon.texts("stdout")[3]
    built = r"\w{3} [ \d]\d \d{4} [\d:]{8}"
    assert re.fullmatch(rf"\[QX\] T5140 Bonjour v2\.1 Start \({built}\)", banner)
    assert daemon.texts("stdout") == [
        "[Bonjour] Interface: br0 is connected",
        "[Bonjour] default device name = T5140_00-11-22-AA-BB-CC",
        "[Bonjour] Answer Name Start (192.168.77.1)",
        banner,
        "[Bonjour] device insert lp0",
        "[Bonjour] device remove lp0",
    ]
    assert daemon.texts("stderr") == []


def test_ten_printers_at_once_are_all_published(dual):
    dual.router.plug_in_all([Printer(port) for port in range(10)])
    dual.start()
    wanted = {IPP.replace(" 0.", f" {port}.") for port in range(10)}

    def published():
        return {
            one.name
            for packet in dual.heard(0, "ipv4")
            if not packet.is_query
            for one in packet.message.answers
            if one.type == "SRV"
        }

    dual.router.daemon.wait_until(lambda: wanted <= published(), "all printers")
    packet = dual.ask(query(IPP_TYPE, "PTR", QU), "ipv4", alone=True)
    assert {one.data for one in packet.message.answers} <= wanted


def test_status_file_that_cannot_be_opened_keeps_printers_published(dual):
    dual.router.plug_in(0)
    daemon = dual.start()
    dual.wait_for_announcements(families=["ipv4"])
    since = dual.capture.mark()
    dual.router.status_file.remove()
    daemon.wait_for_line('[Bonjour] Can not open "/proc/printer_status"')
    packet = dual.ask(query(IPP, "SRV", QU), "ipv4", alone=True)
    assert packet.message.answers[0].ttl == 120
    assert not dual.heard(since, wanted=lambda one: any(each.ttl == 0 for each in answers(one)))


def answers(packet):
    return () if packet.is_query else packet.message.answers


def test_model_comes_from_the_printer_where_the_file_has_none(dual):
    dual.router.connect_device(0, "MFG:HP;MODEL:Model 12;CMD:PJL,PCL;")
    dual.router.plug_in(0, model="")
    dual.start()
    dual.wait(lambda one: not one.is_query and b"\x0bty=Model 12" in one.payload)
