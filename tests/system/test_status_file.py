"""The printer status file in every state: missing, unreadable, broken, too long."""

import time

import pytest
import wire
from lab.packets import hexbytes
from lab.printers import Printer

pytestmark = pytest.mark.release

BROWSE_IPP = hexbytes(f"{wire.QUERY_1} {wire.IPP} 000C 0001")
CANNOT_OPEN = '[Bonjour] Can not open "/proc/printer_status"'
SENTINEL = Printer(9, "Acme", "Sentinel", "").record()


def announces_sentinel(packet):
    return b"Sentinel (aa:bb:cc) 9" in packet.payload and b"_ipp" in packet.payload


def presence(daemon, since=0):
    return [
        text.removeprefix("[Bonjour] device ")
        for text in daemon.texts(since=since)
        if text.startswith("[Bonjour] device ")
    ]


@pytest.fixture
def presence_in(lab, router, daemon):
    """Shows the daemon a status file and says which printers it saw: those that it inserts now
    and removes when the file gives way to one with a single other printer."""

    def show(content):
        since, packets = daemon.mark(), lab.capture.mark()
        router.status_file.replace(content)
        router.status_file.wait_until_read()
        router.status_file.replace(SENTINEL)
        daemon.wait_for_line("[Bonjour] device insert lp9", since=since)
        # The daemon reads the file for the texts of an insertion too, last for that of IPP: only
        # then is the next reader one that looks for printers.
        lab.wait_for_packet(announces_sentinel, packets)
        seen = [text.split() for text in presence(daemon, since) if not text.endswith("lp9")]
        inserted = [printer for action, printer in seen if action == "insert"]
        assert [printer for action, printer in seen if action == "remove"] == inserted
        return inserted

    return show


def test_file_shows_the_printers(presence_in):
    """Only whole records, with a port; all of the same file."""
    assert presence_in("usblp0\nAcme\nJet") == []
    assert presence_in(
        "usblp5\nAcme\nJet\nPCL\n\nusblp1\nAcme\nJet\nPCL\n\nusblpx\nA\nB\nC\n\nusblp2\nA\n"
    ) == ["lp1", "lp5"]


def test_lines_are_counted_from_the_end_of_the_record_before(presence_in):
    # The first record's own first line names no port; a later line does, and the lines are still
    # counted from the record's start.
    assert presence_in("somewhere\nusblp3\nJet\nPCL\n\nusblp1\nAcme\nJet\nPCL\n\n") == [
        "lp1",
        "lp3",
    ]


def test_text_beyond_40960_bytes_is_not_read(presence_in):
    first = "usblp0\nAcme\nJet\nPCL\n"
    second = "usblp1\nAcme\nJet\n"
    filler = "x" * (40960 - len(first) - 1 - len(second)) + "\n"
    assert presence_in(first + filler + second + "PCL\n\n") == ["lp0", "lp1"]
    assert presence_in(first + "x" + filler + second + "PCL\n\n") == ["lp0"]


def test_binary_garbage_does_no_harm(presence_in):
    assert presence_in(bytes(range(256)) * 300) == []
    assert presence_in(b"usblp0\n\xff\xfe\n\x80\n\n\n") == ["lp0"]


def test_zero_byte_ends_the_text(presence_in):
    assert presence_in(b"\0usblp0\nAcme\nJet\nPCL\n\n") == []


def test_later_record_of_a_port_gives_the_name_and_the_first_the_text(lab, router):
    router.status_file.replace("usblp0\nAcme\nJet\nPCL\n\nusblp0\nOther\nInk\nPJL\n\n")
    router.start()
    answers = lab.wait_for_packet(
        lambda packet: not packet.is_query and len(packet.message.answers) == 5
    )[0].message.answers
    assert answers[1].data == "Other Ink (aa:bb:cc) 0._ipp._tcp.local"
    assert "usb_MFG=Acme" in answers[3].data


@pytest.mark.parametrize("content", ["usblp0\nAcme\nJet\n", "usblp0\nAcme\nJet\nPCL"])
def test_printer_without_a_whole_fourth_line_is_there_but_not_published(lab, router, content):
    router.status_file.replace(content)
    daemon = router.start()
    daemon.wait_for_line("[Bonjour] GetTXTData error", count=2)
    assert daemon.texts("stderr") == []
    assert [packet for packet in lab.sent() if not packet.is_query] == []


def test_emptied_file_withdraws_the_printer(lab, router, daemon_with_printer):
    router.status_file.rewrite("")
    daemon_with_printer.wait_for_line("[Bonjour] device remove lp0")
    lab.wait_for_transmissions(wire.PDL_GOODBYE)
    lab.wait_for_transmissions(wire.IPP_GOODBYE)


def test_record_that_breaks_withdraws_the_printers_from_there_on(lab, router, daemon):
    router.plug_in_all(Printer(port, "Acme", "Jet", "PCL") for port in (0, 1, 2))
    daemon.wait_for_line("[Bonjour] device insert lp2")
    since = daemon.mark()
    whole = Printer(0, "Acme", "Jet", "PCL").record()
    router.status_file.replace(f"{whole}usblp1\nAcme")
    daemon.wait_for_line("[Bonjour] device remove lp2", since=since)
    assert presence(daemon, since) == ["remove lp1", "remove lp2"]


@pytest.mark.parametrize("make_unreadable", ["make_unreadable", "remove"])
def test_file_that_cannot_be_opened_keeps_the_printer(
    lab, router, daemon_with_printer, make_unreadable
):
    getattr(router.status_file, make_unreadable)()
    daemon_with_printer.wait_for_line(CANNOT_OPEN, count=2)
    since = lab.capture.mark()
    assert lab.ask(BROWSE_IPP) == [wire.IPP_RECORDS]
    router.status_file.replace(Printer(0).record())
    router.status_file.wait_until_read()
    router.plug_in(1, "Acme", "Jet", "PCL")
    daemon_with_printer.wait_for_line("[Bonjour] device insert lp1")
    assert presence(daemon_with_printer) == ["insert lp0", "insert lp1"]
    assert wire.PDL_GOODBYE not in {packet.payload for packet in lab.sent(since)}


def test_missing_file_is_waited_for(lab, router):
    router.status_file.remove()
    daemon = router.start()
    line = daemon.wait_for_line(CANNOT_OPEN)
    assert line.stream == "stdout"
    router.plug_in(0)
    daemon.wait_for_line("[Bonjour] device insert lp0")
    lab.wait_for_transmissions(wire.IPP_RECORDS)


def test_file_is_looked_at_once_a_second(router):
    # A line is seen some time after it was written: only the start is surely not late.
    start = time.time()
    router.status_file.remove()
    daemon = router.start()
    assert daemon.wait_for_line(CANNOT_OPEN, count=4).time - start >= 3
