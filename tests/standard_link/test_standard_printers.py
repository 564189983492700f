"""Printers, and the lines that they give. What holds for both responders is in tests/system."""

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
