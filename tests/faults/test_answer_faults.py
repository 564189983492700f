"""Answering and sending when memory, threads or the network fail: the next question is answered."""

import re

import pytest
import wire
from board import ANSWERING, DETACHED, SENDER, SIOCGIFADDR, SIOCGIFFLAGS
from lab import packets
from lab.usage import usage_once_senders_ended

NO_MEMORY = "[Bonjour] malloc error: Cannot allocate memory"
NO_ANSWER = "[MDNS_Answer] UpdateHostIP error"
IPP_QUESTION = packets.query(("_ipp._tcp.local", "PTR"))
PDL_QUESTION = packets.query(("_pdl-datastream._tcp.local", "PTR"))

# Sizes in bytes of what an answer for the printer takes from the heap, in this order: the short
# labels "_pdl-datastream" and "_ipp" of the two entries, then of the second one the names
# "HP Model 12 (aa:bb:cc) 0._ipp._tcp.local" and "_ipp._tcp.local" and the TXT text.
PDL_LABEL = 16
IPP_LABEL = 5
IPP_INSTANCE = 41
IPP_TYPE = 16
IPP_TXT = 201


@pytest.fixture
def printing(lab, router, start):
    """The daemon with a printer that is announced, its senders ended."""
    daemon = start()
    router.plug_in(0)
    lab.wait_for_transmissions(wire.IPP_RECORDS)
    usage_once_senders_ended(daemon.pid)
    return daemon


def log_of(daemon, act):
    """The lines of each stream while `act` is done."""
    since = daemon.mark()
    result = act()
    return result, daemon.texts("stdout", since), daemon.texts("stderr", since)


@pytest.mark.parametrize(
    "name, about", [("SIOCGIFFLAGS", SIOCGIFFLAGS), ("SIOCGIFADDR", SIOCGIFADDR)]
)
def test_host_question_is_not_answered_when_the_address_cannot_be_had(
    lab, board, start, holdings, name, about
):
    daemon = start()
    before = holdings(daemon)
    board.fail("ioctl", "ENODEV", thread=ANSWERING, about=about)
    answers, printed, errors = log_of(daemon, lambda: lab.ask(wire.HOST_QUESTION))
    assert answers == []
    assert printed[:3] == [
        "[Bonjour] answer(192.168.77.1) query target from 192.168.77.10 (47)",
        f"[Bonjour] ioctl {name} failed:br0",
        NO_ANSWER,
    ]
    assert errors == [f"[Bonjour] ioctl {name} failed: No such device"]
    assert lab.ask(wire.HOST_QUESTION) == [wire.HOST_ANSWER]
    before.check()


def test_host_question_is_not_answered_without_a_control_socket(lab, board, start):
    daemon = start()
    board.fail("socket", "EMFILE", thread=ANSWERING)
    answers, printed, errors = log_of(daemon, lambda: lab.ask(wire.HOST_QUESTION))
    assert answers == []
    assert printed[1] == NO_ANSWER
    assert errors == []
    assert lab.ask(wire.HOST_QUESTION) == [wire.HOST_ANSWER]


def test_scan_goes_on_with_the_next_service_when_the_address_cannot_be_had(
    lab, board, printing, holdings
):
    before = holdings(printing)
    board.fail("ioctl", "ENODEV", thread=ANSWERING, about=SIOCGIFADDR)
    both = packets.query(("_pdl-datastream._tcp.local", "PTR"), ("_ipp._tcp.local", "PTR"))
    answers, printed, _ = log_of(printing, lambda: lab.ask(both))
    assert answers == [wire.IPP_RECORDS]
    assert printed.count(NO_ANSWER) == 1
    assert sorted(lab.ask(both)) == sorted([wire.PDL_RECORDS, wire.IPP_RECORDS])
    before.check()


@pytest.mark.parametrize(
    "size, skip",
    [(PDL_LABEL, 0), (IPP_LABEL, 0)],
    ids=["of the first service", "of the service asked for"],
)
def test_no_memory_for_a_short_label_drops_the_message(
    lab, board, printing, holdings, size, skip
):
    before = holdings(printing)
    board.fail("calloc", "ENOMEM", thread=ANSWERING, about=size, skip=skip)
    since = printing.mark()
    lab.host.send(IPP_QUESTION)
    assert printing.wait_for_line(NO_MEMORY, since=since).stream == "stderr"
    assert lab.ask(IPP_QUESTION) == [wire.IPP_RECORDS]
    assert printing.texts("stderr", since) == [NO_MEMORY]
    before.check()


def test_message_that_is_dropped_for_a_short_label_is_not_looked_at_further(
    lab, board, printing
):
    board.fail("calloc", "ENOMEM", thread=ANSWERING, about=IPP_LABEL)
    both = packets.query(("_ipp._tcp.local", "PTR"), ("_pdl-datastream._tcp.local", "PTR"))
    assert lab.ask(both) == [wire.PDL_RECORDS]
    board.fail("calloc", "ENOMEM", thread=ANSWERING, about=PDL_LABEL)
    assert lab.ask(both) == []


@pytest.mark.parametrize(
    "size, skip",
    [(IPP_INSTANCE, 0), (IPP_TYPE, 1), (IPP_TXT, 0)],
    ids=["instance name", "type name", "TXT text"],
)
def test_no_memory_for_a_text_skips_the_service(lab, board, printing, holdings, size, skip):
    before = holdings(printing)
    board.fail("calloc", "ENOMEM", thread=ANSWERING, about=size, skip=skip)
    since = printing.mark()
    lab.host.send(IPP_QUESTION)
    printing.wait_for_line(re.compile(r".* query _ipp from .*"), since=since)
    assert printing.wait_for_line(NO_MEMORY, since=since).stream == "stderr"
    assert lab.ask(IPP_QUESTION) == [wire.IPP_RECORDS]
    assert printing.texts("stderr", since) == [NO_MEMORY]
    before.check()


def test_no_memory_for_one_service_leaves_the_next_one_answered(lab, board, printing):
    # "HP Model 12 (aa:bb:cc) 0._pdl-datastream._tcp.local"
    board.fail("calloc", "ENOMEM", thread=ANSWERING, about=52)
    both = packets.query(("_pdl-datastream._tcp.local", "PTR"), ("_ipp._tcp.local", "PTR"))
    since = printing.mark()
    packets_before = lab.capture.mark()
    lab.host.send(both)
    printing.wait_for_line(NO_MEMORY, since=since)
    lab.wait_for_transmissions(wire.IPP_RECORDS, packets_before)
    usage_once_senders_ended(printing.pid)
    assert sorted(lab.ask(both)) == sorted([wire.PDL_RECORDS, wire.IPP_RECORDS])


def test_no_memory_for_a_job_sends_nothing_and_says_nothing(lab, router, board, start, holdings):
    daemon = start()
    # The sender of an answer of more than 768 bytes needs its job to the end.
    router.plug_in(0, "M" * 24, "N" * 23)
    lab.wait_for_packet(lambda packet: not packet.is_query, count=2 * 3)
    before = holdings(daemon)
    (answer,) = lab.ask(IPP_QUESTION)
    assert len(answer) > 768
    refused = board.fail("mmap", "ENOMEM", thread=ANSWERING)
    since = lab.capture.mark()
    # Four jobs at most are kept, so the fifth is refused at the latest.
    for _ in range(5):
        lab.host.send(IPP_QUESTION)
    refused.wait()
    lab.wait_for_packet(answer, since, count=3 * 4)
    usage_once_senders_ended(daemon.pid)
    assert [packet.payload for packet in lab.sent(since)] == [answer] * 3 * 4
    assert daemon.texts("stderr") == []
    before.check()


def test_no_sender_thread_is_reported_and_its_job_carries_the_next_packet(
    lab, board, start, holdings
):
    daemon = start()
    before = holdings(daemon)
    board.fail("pthread_create", "EAGAIN", thread=ANSWERING, about=DETACHED)
    since = lab.capture.mark()
    lab.host.send(wire.HOST_QUESTION)
    line = daemon.wait_for_line("[Bonjour] pthread_create: Resource temporarily unavailable")
    assert line.stream == "stderr"
    before.check()
    lab.host.send(wire.HOST_QUESTION)
    lab.wait_for_transmissions(wire.HOST_ANSWER, since)
    usage_once_senders_ended(daemon.pid)
    assert len(lab.sent(since)) == 3
    before.check()


def test_a_thousand_senders_that_cannot_start_leave_nothing_behind(lab, board, start, holdings):
    daemon = start()
    before = holdings(daemon)
    failed = board.fail("pthread_create", "EAGAIN", thread=ANSWERING, about=DETACHED, times=1000)
    for number in range(1, 1001):
        lab.host.send(wire.HOST_QUESTION)
        failed.wait(number)
    before.check()


def test_stop_does_not_wait_for_a_sender_that_was_never_started(lab, router, board, start):
    daemon = start()
    board.fail("pthread_create", "EAGAIN", thread=ANSWERING, about=DETACHED)
    lab.host.send(wire.HOST_QUESTION)
    daemon.wait_for_line("[Bonjour] pthread_create: Resource temporarily unavailable")
    router.stop()


@pytest.mark.parametrize("sent", [0, 1, 2])
def test_failed_transmission_is_reported_once_and_ends_the_repetition(
    lab, board, start, holdings, sent
):
    daemon = start()
    before = holdings(daemon)
    board.fail("sendto", "ENETUNREACH", thread=SENDER, skip=sent)
    since = lab.capture.mark()
    lab.host.send(wire.HOST_QUESTION)
    daemon.wait_for_line("[Bonjour] send packet error: Network is unreachable")
    usage_once_senders_ended(daemon.pid)
    assert daemon.texts("stderr") == ["[Bonjour] send packet error: Network is unreachable"]
    assert [packet.payload for packet in lab.sent(since)] == [wire.HOST_ANSWER] * sent
    before.check()
    assert lab.ask(wire.HOST_QUESTION) == [wire.HOST_ANSWER]


def test_stop_during_an_answer_lets_it_be_sent_three_times(lab, router, board, start):
    start()
    since = lab.capture.mark()
    lab.host.send(wire.HOST_QUESTION)
    lab.wait_for_packet(wire.HOST_ANSWER, since)
    router.stop()
    assert [packet.payload for packet in lab.sent(since)] == [wire.HOST_ANSWER] * 3
    assert router.daemon.texts("stderr") == []
