"""Printers when memory is short, when the status file or the device cannot be read."""

import pytest
import wire
from board import LPIOC_GET_DEVICE_ID, MONITOR, RESPONDER
from heap_sizes import (
    DEVICE_ID,
    ENTRY,
    PDL_HOST,
    PDL_INSTANCE,
    PDL_TYPE,
    STATUS_BUFFER,
    TXT_BUFFER,
)
from lab import packets
from lab.usage import usage_once_senders_ended

STATUS_FILE = "/proc/printer_status"
INSERTED = "[Bonjour] device insert lp0"
REMOVED = "[Bonjour] device remove lp0"
NO_MEMORY = "[Bonjour] malloc error: Cannot allocate memory"
NO_TEXT = "[Bonjour] GetTXTData error"
NOT_REGISTERED = "**********RegisterOneService error*************"
NOT_UNREGISTERED = "**********UnRegisterOneService error*************"
IPP_QUESTION = packets.query(("_ipp._tcp.local", "PTR"))
PDL_QUESTION = packets.query(("_pdl-datastream._tcp.local", "PTR"))


@pytest.fixture
def daemon(start):
    return start()


def payloads_sent(lab, since=0):
    return {packet.payload for packet in lab.sent(since)}


def announced_ipp_alone(lab, daemon):
    """Whether, once all is quiet, only the IPP service of the printer was announced."""
    lab.wait_for_transmissions(wire.IPP_RECORDS)
    usage_once_senders_ended(daemon.pid)
    return payloads_sent(lab) == {wire.HOST_PROBE, wire.IPP_PROBE, wire.IPP_RECORDS}


# The start of the monitor


def test_no_memory_for_the_file_buffer_ends_the_monitor_and_nothing_else(lab, router, board, start):
    router.plug_in(0)
    board.fail("calloc", "ENOMEM", thread=MONITOR, about=STATUS_BUFFER)
    opens = board.observe("open", thread=MONITOR)
    daemon = start()
    daemon.wait_for_line(NO_MEMORY)
    assert lab.ask(wire.HOST_QUESTION) == [wire.HOST_ANSWER]
    assert opens.seen == 0
    assert not daemon.count(INSERTED)


# Reading the status file


def test_pass_that_cannot_open_the_file_keeps_the_printer(lab, router, board, daemon, holdings):
    router.plug_in(0)
    lab.wait_for_transmissions(wire.IPP_RECORDS)
    before = holdings(daemon)
    board.fail("open", "EMFILE", thread=MONITOR, path=STATUS_FILE, times=2)
    line = daemon.wait_for_line('[Bonjour] Can not open "/proc/printer_status"', count=2)
    assert line.stream == "stdout"
    assert not daemon.count(REMOVED)
    assert lab.ask(IPP_QUESTION) == [wire.IPP_RECORDS]
    before.check()


@pytest.mark.parametrize("error", ["EINTR", "EIO"])
def test_first_read_that_fails_is_a_file_without_printers(lab, router, board, daemon, error):
    router.plug_in(0)
    daemon.wait_for_line(INSERTED)
    lab.wait_for_transmissions(wire.IPP_RECORDS)
    board.fail("read", error, thread=MONITOR)
    daemon.wait_for_line(REMOVED)
    daemon.wait_for_line(INSERTED, count=2)
    assert daemon.texts("stderr") == []


def test_later_read_that_fails_ends_what_is_read_of_the_file(router, board, daemon):
    limited = board.limit("read", 40, thread=MONITOR, times=None)
    board.fail("read", "EINTR", thread=MONITOR, skip=1)
    # 40 bytes hold the first record and the port of the second.
    router.status_file.replace("usblp0\nHP\nModel 12\nPJL,PCL\n\nusblp1\nHP\nModel 1\nPCL\n\n")
    daemon.wait_for_line(INSERTED)
    limited.lift()
    daemon.wait_for_line("[Bonjour] device insert lp1")
    inserts = [text for text in daemon.texts() if "device insert" in text]
    assert inserts == [INSERTED, "[Bonjour] device insert lp1"]


def test_file_that_comes_a_byte_at_a_time_is_read_whole(lab, router, board, daemon):
    board.limit("read", 1, thread=MONITOR, times=None)
    router.plug_in(0)
    lab.wait_for_transmissions(wire.IPP_RECORDS)


# The third line of the record ends with the last byte that is read, or with the one after it.
@pytest.mark.parametrize("beyond, inserts", [(0, [INSERTED]), (1, [])], ids=["last", "beyond"])
def test_reads_ask_for_4096_bytes_and_40960_in_all(router, board, daemon, beyond, inserts):
    record = "usblp0\nHP\nModel 12\n"
    reads = board.observe("read", thread=MONITOR, times=None)
    router.status_file.replace("x" * (40960 - len(record) + beyond) + record + "PCL\n\n" * 1000)
    passes = board.observe("open", thread=MONITOR, path=STATUS_FILE, times=None)
    passes.wait(3)
    assert reads.most_bytes == 4096
    assert [text for text in daemon.texts() if "device" in text and "lp" in text] == inserts


# The TXT text of a service


def test_no_memory_for_a_txt_buffer_leaves_out_that_service_alone(lab, router, board, daemon):
    board.fail("calloc", "ENOMEM", thread=MONITOR, about=TXT_BUFFER)
    router.plug_in(0)
    assert announced_ipp_alone(lab, daemon)
    assert daemon.texts("stderr") == [NO_MEMORY]
    # At the removal the service without a buffer is passed over.
    since = lab.capture.mark()
    router.pull_out(0)
    lab.wait_for_transmissions(wire.IPP_GOODBYE, since)
    usage_once_senders_ended(daemon.pid)
    assert payloads_sent(lab, since) == {wire.IPP_GOODBYE}


def test_no_memory_to_read_the_file_for_a_text_is_reported(lab, router, board, start):
    board.fail("calloc", "ENOMEM", thread=MONITOR, about=STATUS_BUFFER, skip=1)
    router.plug_in(0)
    daemon = start()
    assert announced_ipp_alone(lab, daemon)
    assert daemon.texts("stderr") == ["[Bonjour] calloc error: Cannot allocate memory"]
    assert daemon.count(NO_TEXT) == 1


def test_file_that_cannot_be_opened_for_a_text_is_reported(lab, router, board, start):
    board.fail("open", "EACCES", thread=MONITOR, path=STATUS_FILE, skip=1)
    router.plug_in(0)
    daemon = start()
    assert announced_ipp_alone(lab, daemon)
    assert daemon.texts("stderr") == [
        '[Bonjour] Can not open "/proc/printer_status": Permission denied'
    ]
    assert daemon.count(NO_TEXT) == 1


def test_failed_read_for_a_text_logs_no_reason(lab, router, board, start):
    # The monitor's own pass takes two reads, the second of which finds the end.
    board.fail("read", "EIO", thread=MONITOR, skip=2)
    router.plug_in(0)
    daemon = start()
    assert announced_ipp_alone(lab, daemon)
    assert daemon.texts("stderr") == []
    assert daemon.count(NO_TEXT) == 1


def test_no_memory_for_a_device_id_is_reported(lab, router, board, daemon):
    router.connect_device(0, "MFG:HP;MODEL:Model 12;")
    board.fail("calloc", "ENOMEM", thread=MONITOR, about=DEVICE_ID)
    router.plug_in(0, model="")
    daemon.wait_for_line(NO_MEMORY)
    daemon.wait_for_line(NO_TEXT)
    assert daemon.count(NO_TEXT) == 1


def test_device_that_fails_is_closed_and_asked_again_for_the_next_service(
    router, board, daemon, holdings
):
    before = holdings(daemon)
    router.connect_device(0, "MFG:HP;MODEL:Model 12;")
    board.fail("ioctl", "EIO", thread=MONITOR, about=LPIOC_GET_DEVICE_ID)
    router.plug_in(0, model="")
    daemon.wait_for_line("[Bonjour] ioctl printer failed: Input/output error")
    daemon.wait_for_line(NO_TEXT)
    router.pull_out(0)
    daemon.wait_for_line("[Bonjour] SERVICE_REMOVE error")
    before.check()


# Registration


def test_no_memory_for_a_registry_entry_leaves_out_that_service_alone(
    lab, router, board, daemon, holdings
):
    before = holdings(daemon)
    board.fail("calloc", "ENOMEM", thread=MONITOR, about=ENTRY)
    router.plug_in(0)
    assert announced_ipp_alone(lab, daemon)
    assert daemon.texts("stderr") == [NO_MEMORY]
    assert daemon.texts("stdout")[-3:] == [
        INSERTED,
        "[Bonjour] SERVICE_ADD error",
        NOT_REGISTERED,
    ]
    router.pull_out(0)
    daemon.wait_for_line("[Bonjour] SERVICE_REMOVE error")
    lab.wait_for_transmissions(wire.IPP_GOODBYE)
    before.check()


@pytest.mark.parametrize(
    "size", [PDL_HOST, PDL_INSTANCE, PDL_TYPE], ids=["host name", "instance name", "type name"]
)
def test_service_that_could_not_be_announced_stays_registered(
    lab, router, board, daemon, holdings, size
):
    before = holdings(daemon)
    board.fail("calloc", "ENOMEM", thread=MONITOR, about=size)
    router.plug_in(0)
    assert announced_ipp_alone(lab, daemon)
    assert daemon.texts("stderr") == [NO_MEMORY]
    assert daemon.texts("stdout")[-3:] == [
        INSERTED,
        "[Bonjour] PacketsComposeAdd error",
        NOT_REGISTERED,
    ]
    assert lab.ask(PDL_QUESTION) == [wire.PDL_RECORDS]
    router.pull_out(0)
    lab.wait_for_transmissions(wire.PDL_GOODBYE)
    lab.wait_for_transmissions(wire.IPP_GOODBYE)
    before.check()


# Withdrawal


@pytest.mark.parametrize("size", [PDL_INSTANCE, PDL_TYPE], ids=["instance name", "type name"])
def test_service_whose_goodbye_could_not_be_made_stays_and_is_answered_until_the_stop(
    lab, router, board, daemon, size
):
    router.plug_in(0)
    lab.wait_for_transmissions(wire.IPP_RECORDS)
    board.fail("calloc", "ENOMEM", thread=MONITOR, about=size)
    usage_once_senders_ended(daemon.pid)
    since = lab.capture.mark()
    router.pull_out(0)
    lab.wait_for_transmissions(wire.IPP_GOODBYE, since)
    usage_once_senders_ended(daemon.pid)
    assert payloads_sent(lab, since) == {wire.IPP_GOODBYE}
    assert daemon.texts("stderr") == [NO_MEMORY]
    assert daemon.texts("stdout")[-3:] == [
        REMOVED,
        "[Bonjour] PacketsComposeRemove error",
        NOT_UNREGISTERED,
    ]
    assert lab.ask(PDL_QUESTION) == [wire.PDL_RECORDS]
    router.stop()
    lab.wait_for_transmissions(wire.PDL_GOODBYE, since)


def test_withdrawal_at_the_stop_is_repeated_until_there_is_memory(lab, router, board, daemon):
    router.plug_in(0)
    lab.wait_for_transmissions(wire.IPP_RECORDS)
    board.fail("calloc", "ENOMEM", thread=RESPONDER, about=PDL_INSTANCE, times=3)
    since = lab.capture.mark()
    router.stop()
    lab.wait_for_transmissions(wire.PDL_GOODBYE, since)
    lab.wait_for_transmissions(wire.IPP_GOODBYE, since)
    assert daemon.texts("stderr") == [NO_MEMORY] * 3
    assert daemon.count("[Bonjour] PacketsComposeRemove error") == 3
