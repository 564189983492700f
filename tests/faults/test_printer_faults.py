"""Printers when memory is short or the status file cannot be read."""

import pytest
import wire
from board import MONITOR, RESPONDER
from heap_sizes import ENTRY, PDL_HOST, PDL_INSTANCE, TXT_BUFFER
from lab import packets
from lab.usage import usage_once_senders_ended

INSERTED = "[Bonjour] device insert lp0"
REMOVED = "[Bonjour] device remove lp0"
NO_MEMORY = "[Bonjour] malloc error: Cannot allocate memory"
NOT_REGISTERED = "**********RegisterOneService error*************"
NOT_UNREGISTERED = "**********UnRegisterOneService error*************"
PDL_QUESTION = packets.query(("_pdl-datastream._tcp.local", "PTR"))


def payloads_sent(lab, since=0):
    return {packet.payload for packet in lab.sent(since)}


def announced_ipp_alone(lab, daemon):
    """Whether, once all is quiet, only the IPP service of the printer was announced."""
    lab.wait_for_transmissions(wire.IPP_RECORDS)
    usage_once_senders_ended(daemon.pid)
    return payloads_sent(lab) == {wire.HOST_PROBE, wire.IPP_PROBE, wire.IPP_RECORDS}


def test_first_read_that_fails_is_a_file_without_printers(board, printing):
    board.fail("read", "EIO", thread=MONITOR)
    printing.wait_for_line(REMOVED)
    printing.wait_for_line(INSERTED, count=2)
    assert printing.texts("stderr") == []


def test_no_memory_for_a_txt_buffer_leaves_out_that_service_alone(
    lab, router, board, daemon, holdings
):
    board.fail("calloc", "ENOMEM", thread=MONITOR, about=TXT_BUFFER)
    router.plug_in(0)
    assert announced_ipp_alone(lab, daemon)
    assert daemon.texts("stderr") == [NO_MEMORY]
    # At the removal the service without a buffer is passed over.
    since = lab.capture.mark()
    router.pull_out(0)
    lab.wait_for_transmissions(wire.IPP_GOODBYE, since)
    holdings.check()
    assert payloads_sent(lab, since) == {wire.IPP_GOODBYE}


@pytest.mark.parametrize(
    "size, complaint, is_registered",
    [
        (ENTRY, "[Bonjour] SERVICE_ADD error", False),
        (PDL_HOST, "[Bonjour] PacketsComposeAdd error", True),
    ],
    ids=["entry", "announcement"],
)
def test_service_without_memory_for_its_entry_is_left_out_and_for_its_packets_answered_all_the_same(
    lab, router, board, daemon, holdings, size, complaint, is_registered
):
    board.fail("calloc", "ENOMEM", thread=MONITOR, about=size)
    router.plug_in(0)
    assert announced_ipp_alone(lab, daemon)
    assert daemon.texts("stderr") == [NO_MEMORY]
    assert daemon.texts("stdout")[-3:] == [INSERTED, complaint, NOT_REGISTERED]
    assert lab.ask(PDL_QUESTION) == ([wire.PDL_RECORDS] if is_registered else [])
    router.pull_out(0)
    lab.wait_for_transmissions(wire.PDL_GOODBYE)
    lab.wait_for_transmissions(wire.IPP_GOODBYE)
    holdings.check()


def test_service_whose_goodbye_cannot_be_made_is_answered_and_withdrawn_once_there_is_memory(
    lab, router, board, printing
):
    board.fail("calloc", "ENOMEM", thread=MONITOR, about=PDL_INSTANCE)
    board.fail("calloc", "ENOMEM", thread=RESPONDER, about=PDL_INSTANCE, times=3)
    since = lab.capture.mark()
    router.pull_out(0)
    lab.wait_for_transmissions(wire.IPP_GOODBYE, since)
    usage_once_senders_ended(printing.pid)
    assert payloads_sent(lab, since) == {wire.IPP_GOODBYE}
    assert printing.texts("stderr") == [NO_MEMORY]
    assert printing.texts("stdout")[-3:] == [
        REMOVED,
        "[Bonjour] PacketsComposeRemove error",
        NOT_UNREGISTERED,
    ]
    assert lab.ask(PDL_QUESTION) == [wire.PDL_RECORDS]
    router.stop()
    lab.wait_for_transmissions(wire.PDL_GOODBYE, since)
    assert printing.texts("stderr") == [NO_MEMORY] * 4
