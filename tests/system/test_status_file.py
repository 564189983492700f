"""The printer status file in every state: missing, unreadable, broken, too long."""

import time

import pytest
from lab.browser import IPP
from lab.printers import Printer
from responders import with_both

pytestmark = [pytest.mark.release, with_both]

CANNOT_OPEN = '[Bonjour] Can not open "/proc/printer_status"'


def presence(daemon, since=0):
    return [
        text.removeprefix("[Bonjour] device ")
        for text in daemon.texts(since=since)
        if text.startswith("[Bonjour] device ")
    ]


def test_whole_records_with_a_port_show_printers_and_a_broken_one_withdraws_all_from_there_on(
    router, daemon
):
    def record(port):
        return f"usblp{port}\nAcme\nJet\nPCL\n\n"

    router.status_file.replace(f"{record(5)}{record(1)}usblpx\nA\nB\nC\n\nusblp2\nA\n")
    daemon.wait_for_line("[Bonjour] device insert lp5")
    router.status_file.replace(f"{record(5)}usblp1\nAcme")
    daemon.wait_for_line("[Bonjour] device remove lp1")
    router.status_file.rewrite(bytes(range(256)) * 300)
    daemon.wait_for_line("[Bonjour] device remove lp5")
    assert presence(daemon) == ["insert lp1", "insert lp5", "remove lp1", "remove lp5"]


def test_text_beyond_40960_bytes_is_not_read(router, daemon):
    first = "usblp0\nAcme\nJet\nPCL\n"
    second = "usblp1\nAcme\nJet\n"
    filler = "x" * (40960 - len(first) - 1 - len(second)) + "\n"
    router.status_file.replace(first + filler + second + "PCL\n\n")
    daemon.wait_for_line("[Bonjour] device insert lp1")
    router.status_file.replace(first + "x" + filler + second + "PCL\n\n")
    daemon.wait_for_line("[Bonjour] device remove lp1")


def test_later_record_of_a_port_gives_the_name_and_the_first_the_text(router, announced):
    router.status_file.replace("usblp0\nAcme\nJet\nPCL\n\nusblp0\nOther\nInk\nPJL\n\n")
    router.start()
    assert "usb_MFG=Acme" in announced(f"Other Ink (aa:bb:cc) 0.{IPP}", "TXT")


@pytest.mark.parametrize("make_unreadable", ["make_unreadable", "remove"])
def test_file_that_cannot_be_opened_keeps_the_printer(
    lab, router, daemon_with_printer, make_unreadable
):
    getattr(router.status_file, make_unreadable)()
    daemon_with_printer.wait_for_line(CANNOT_OPEN, count=2)
    router.status_file.replace(Printer(0).record())
    router.status_file.wait_until_read()
    router.plug_in(1, "Acme", "Jet", "PCL")
    daemon_with_printer.wait_for_line("[Bonjour] device insert lp1")
    assert presence(daemon_with_printer) == ["insert lp0", "insert lp1"]
    sent = [packet.message.answers for packet in lab.sent() if not packet.is_query]
    assert all(record.ttl for answers in sent for record in answers)


def test_missing_file_is_looked_for_once_a_second(router, announced):
    # A line is seen some time after it was written: only the start is surely not late.
    start = time.time()
    router.status_file.remove()
    daemon = router.start()
    line = daemon.wait_for_line(CANNOT_OPEN, count=4)
    assert line.stream == "stdout"
    assert line.time - start >= 3
    router.plug_in(0)
    daemon.wait_for_line("[Bonjour] device insert lp0")
    announced(IPP, "SRV")
