"""Answering and sending when memory, threads or the network fail: the next question is answered."""

import wire
from board import ANSWERING, DETACHED, SENDER
from lab import packets
from lab.usage import usage_once_senders_ended

NO_MEMORY = "[Bonjour] malloc error: Cannot allocate memory"
NO_SENDER = "[Bonjour] pthread_create: Resource temporarily unavailable"
NOT_SENT = "[Bonjour] send packet error: Network is unreachable"
BOTH = packets.query(("_pdl-datastream._tcp.local", "PTR"), ("_ipp._tcp.local", "PTR"))
# Bytes that the raw-port service's name, "HP Model 12 (aa:bb:cc) 0._pdl-datastream._tcp.local",
# takes from the heap.
PDL_INSTANCE = 52


def test_service_without_memory_for_its_name_is_skipped_and_the_next_one_answered(
    lab, board, printing, holdings
):
    board.fail("calloc", "ENOMEM", thread=ANSWERING, about=PDL_INSTANCE)
    since = lab.capture.mark()
    lab.host.send(BOTH)
    assert printing.wait_for_line(NO_MEMORY).stream == "stderr"
    lab.wait_for_transmissions(wire.IPP_RECORDS, since)
    usage_once_senders_ended(printing.pid)
    assert wire.PDL_RECORDS not in {packet.payload for packet in lab.sent(since)}
    assert sorted(lab.ask(BOTH)) == sorted([wire.PDL_RECORDS, wire.IPP_RECORDS])
    assert printing.texts("stderr") == [NO_MEMORY]
    holdings.check()


def test_sender_that_cannot_start_is_reported_and_leaves_nothing_behind(
    lab, router, board, daemon, holdings
):
    failed = board.fail("pthread_create", "EAGAIN", thread=ANSWERING, about=DETACHED, times=20)
    since = lab.capture.mark()
    for _ in range(20):
        lab.host.send(wire.HOST_QUESTION)
    failed.wait(20)
    assert daemon.wait_for_line(NO_SENDER, count=20).stream == "stderr"
    holdings.check()
    lab.host.send(wire.HOST_QUESTION)
    lab.wait_for_transmissions(wire.HOST_ANSWER, since)
    usage_once_senders_ended(daemon.pid)
    assert len(lab.sent(since)) == 3
    # Nobody waits for those that never were.
    router.stop()


def test_failed_transmission_is_reported_once_and_ends_the_repetition(
    lab, board, daemon, holdings
):
    board.fail("sendto", "ENETUNREACH", thread=SENDER, skip=1)
    since = lab.capture.mark()
    lab.host.send(wire.HOST_QUESTION)
    daemon.wait_for_line(NOT_SENT)
    usage_once_senders_ended(daemon.pid)
    assert daemon.texts("stderr") == [NOT_SENT]
    assert [packet.payload for packet in lab.sent(since)] == [wire.HOST_ANSWER]
    holdings.check()
    assert lab.ask(wire.HOST_QUESTION) == [wire.HOST_ANSWER]
