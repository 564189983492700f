"""The printer status file in every state: broken, too long, unreadable, missing."""

import time

import pytest
from responders import with_both

pytestmark = [pytest.mark.release, with_both]

CANNOT_OPEN = '[Bonjour] Can not open "/proc/printer_status"'


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
    lines = ("insert lp1", "insert lp5", "remove lp1", "remove lp5")
    assert [text for text in daemon.texts() if " lp" in text] == [
        f"[Bonjour] device {line}" for line in lines
    ]


@pytest.mark.parametrize("make_unreadable", ["make_unreadable", "remove"])
def test_file_that_cannot_be_opened_keeps_the_printer_and_is_looked_for_once_a_second(
    lab, router, daemon_with_printer, make_unreadable
):
    # A line is seen some time after it was written: only the start is surely not late.
    start = time.time()
    getattr(router.status_file, make_unreadable)()
    line = daemon_with_printer.wait_for_line(CANNOT_OPEN, count=3)
    assert line.stream == "stdout"
    assert line.time - start >= 2
    router.plug_in(1, "Acme", "Jet", "PCL")
    daemon_with_printer.wait_for_line("[Bonjour] device insert lp1")
    assert "[Bonjour] device remove lp0" not in daemon_with_printer.texts()
    sent = [packet.message.answers for packet in lab.sent() if not packet.is_query]
    assert all(record.ttl for answers in sent for record in answers)
