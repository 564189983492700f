"""What a fault costs, and what not, where two threads or both ends of the daemon have part in it.
What each single failing call leads to is in the unit tests."""

import pytest
import wire
from board import (
    ANSWERING,
    DETACHED,
    INITIAL,
    JOINABLE,
    MONITOR,
    RESPONDER,
    SIOCGIFADDR,
)
from lab import packets
from lab.usage import usage, usage_once_senders_ended

# Bytes that the monitor takes from the heap for an entry of the registry, and for the raw-port
# service's host name and instance name, each with its terminator.
ENTRY = 232
PDL_HOST = 30
PDL_INSTANCE = 52

INSERTED = "[Bonjour] device insert lp0"
REMOVED = "[Bonjour] device remove lp0"
NO_MEMORY = "[Bonjour] malloc error: Cannot allocate memory"
NO_THREAD = "[Bonjour] pthread_create error: Resource temporarily unavailable"
NO_SENDER = "[Bonjour] pthread_create: Resource temporarily unavailable"
NOT_REGISTERED = "**********RegisterOneService error*************"
NOT_UNREGISTERED = "**********UnRegisterOneService error*************"
IPP_QUESTION = packets.query(("_ipp._tcp.local", "PTR"))
PDL_QUESTION = packets.query(("_pdl-datastream._tcp.local", "PTR"))


def payloads_sent(lab, since=0):
    return [packet.payload for packet in lab.sent(since)]


@pytest.mark.parametrize("number", [0, 1], ids=["responder", "monitor"])
def test_daemon_without_one_of_its_two_threads_ends_with_status_0(board, start, number):
    board.fail("pthread_create", "EAGAIN", thread=INITIAL, about=JOINABLE, skip=number)
    daemon = start(ready=number == 1)
    assert daemon.wait_for_exit() == 0
    assert daemon.texts("stderr") == [NO_THREAD]


def test_senders_that_cannot_start_are_reported_and_the_next_answer_is_sent(
    lab, router, board, daemon
):
    failed = board.fail("pthread_create", "EAGAIN", thread=ANSWERING, about=DETACHED, times=20)
    since = lab.capture.mark()
    for _ in range(20):
        lab.host.send(wire.HOST_QUESTION)
    failed.wait(20)
    assert daemon.wait_for_line(NO_SENDER, count=20).stream == "stderr"
    lab.host.send(wire.HOST_QUESTION)
    lab.wait_for_transmissions(wire.HOST_ANSWER, since)
    # Nobody waits for those that never were.
    router.stop()
    assert payloads_sent(lab, since) == [wire.HOST_ANSWER] * 3


@pytest.mark.parametrize(
    "size, complaint, is_registered",
    [
        (ENTRY, "[Bonjour] SERVICE_ADD error", False),
        (PDL_HOST, "[Bonjour] PacketsComposeAdd error", True),
    ],
    ids=["entry", "announcement"],
)
def test_service_without_memory_for_its_entry_is_left_out_and_for_its_packets_answered_all_the_same(
    lab, router, board, daemon, size, complaint, is_registered
):
    board.fail("calloc", "ENOMEM", thread=MONITOR, about=size)
    router.plug_in(0)
    lab.wait_for_transmissions(wire.IPP_RECORDS)
    usage_once_senders_ended(daemon.pid)
    assert set(payloads_sent(lab)) == {wire.HOST_PROBE, wire.IPP_PROBE, wire.IPP_RECORDS}
    assert daemon.texts("stderr") == [NO_MEMORY]
    assert daemon.texts("stdout")[-3:] == [INSERTED, complaint, NOT_REGISTERED]
    assert lab.ask(PDL_QUESTION) == ([wire.PDL_RECORDS] if is_registered else [])
    router.pull_out(0)
    lab.wait_for_transmissions(wire.PDL_GOODBYE)
    lab.wait_for_transmissions(wire.IPP_GOODBYE)


def test_service_whose_goodbye_cannot_be_made_is_answered_and_withdrawn_once_there_is_memory(
    lab, router, board, printing
):
    board.fail("calloc", "ENOMEM", thread=MONITOR, about=PDL_INSTANCE)
    board.fail("calloc", "ENOMEM", thread=RESPONDER, about=PDL_INSTANCE, times=3)
    since = lab.capture.mark()
    router.pull_out(0)
    lab.wait_for_transmissions(wire.IPP_GOODBYE, since)
    usage_once_senders_ended(printing.pid)
    assert set(payloads_sent(lab, since)) == {wire.IPP_GOODBYE}
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


def test_printer_that_goes_during_an_answer_is_answered_first(lab, router, board, printing):
    since = lab.capture.mark()
    held = board.hold("ioctl", thread=ANSWERING, about=SIOCGIFADDR)
    lab.host.send(IPP_QUESTION)
    held.wait()
    router.pull_out(0)
    printing.wait_for_line(REMOVED)
    lab.wait_for_transmissions(wire.PDL_GOODBYE, since)
    held.release()
    lab.wait_for_transmissions(wire.IPP_RECORDS, since)
    lab.wait_for_transmissions(wire.IPP_GOODBYE, since)
    usage_once_senders_ended(printing.pid)
    assert lab.ask(IPP_QUESTION) == []
    assert printing.texts("stderr") == []


def test_registration_under_way_at_the_stop_is_announced_and_then_withdrawn(
    lab, router, board, daemon
):
    held = board.hold("calloc", thread=MONITOR, about=PDL_HOST)
    router.plug_in(0)
    held.wait()
    since = lab.capture.mark()
    daemon.signal(15)
    # The answering thread ends at once, and the responder's waits.
    daemon.wait_until(lambda: usage(daemon.pid).threads == 3, "the answering thread has ended")
    held.release()
    router.stop()
    assert payloads_sent(lab, since)[-3:] == [wire.PDL_GOODBYE] * 3
    assert payloads_sent(lab, since).count(wire.PDL_RECORDS) == 3
    # The printer's second service begins after the stop.
    assert daemon.texts("stdout")[-2:] == ["[Bonjour] SERVICE_ADD error", NOT_REGISTERED]
    assert wire.IPP_RECORDS not in payloads_sent(lab, since)
