"""The monitor, an answer and the stop at the same time: each call is held where the other comes."""

import wire
from board import ANSWERING, MONITOR, RESPONDER, SIOCGIFADDR
from heap_sizes import ENTRY, PDL_HOST, PDL_INSTANCE
from lab import packets
from lab.usage import usage, usage_once_senders_ended

REMOVED = "[Bonjour] device remove lp0"
NOT_REGISTERED = "**********RegisterOneService error*************"
IPP_QUESTION = packets.query(("_ipp._tcp.local", "PTR"))


def test_printer_removed_while_the_stop_withdraws_it_is_withdrawn_once(
    lab, router, board, printing
):
    since = lab.capture.mark()
    held = board.hold("calloc", thread=MONITOR, about=PDL_INSTANCE)
    withdrawn = board.observe("calloc", thread=RESPONDER, about=PDL_INSTANCE)
    router.pull_out(0)
    held.wait()
    printing.signal(15)
    withdrawn.wait()
    lab.wait_for_transmissions(wire.IPP_GOODBYE, since)
    held.release()
    router.stop()
    assert printing.texts("stderr") == []
    assert printing.count("[Bonjour] SERVICE_REMOVE error") == 2


def test_printer_that_comes_after_the_stop_has_withdrawn_all_is_not_published(
    lab, router, board, daemon
):
    held = board.hold("calloc", thread=MONITOR, about=ENTRY)
    router.plug_in(0)
    held.wait()
    since = lab.capture.mark()
    daemon.signal(15)
    # The registration is not waited for for ever: the responder's thread ends.
    daemon.wait_until(lambda: usage(daemon.pid).threads == 2, "the responder has ended")
    held.release()
    router.stop()
    assert lab.sent(since) == []
    assert daemon.texts("stderr") == []
    assert daemon.texts("stdout")[-2:] == ["[Bonjour] SERVICE_ADD error", NOT_REGISTERED]


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
    assert [packet.payload for packet in lab.sent(since)][-3:] == [wire.PDL_GOODBYE] * 3
    assert sum(packet.payload == wire.PDL_RECORDS for packet in lab.sent(since)) == 3
    # The printer's second service begins after the stop.
    assert daemon.texts("stdout")[-2:] == ["[Bonjour] SERVICE_ADD error", NOT_REGISTERED]
    assert wire.IPP_RECORDS not in {packet.payload for packet in lab.sent(since)}


def test_answer_under_way_at_the_stop_is_sent_three_times_before_the_goodbyes(
    lab, router, board, printing
):
    since = lab.capture.mark()
    held = board.hold("ioctl", thread=ANSWERING, about=SIOCGIFADDR)
    lab.host.send(IPP_QUESTION)
    held.wait()
    printing.signal(15)
    held.release()
    router.stop()
    sent = [packet.payload for packet in lab.sent(since)]
    assert sent[:3] == [wire.IPP_RECORDS] * 3
    assert sorted(sent[3:]) == sorted([wire.PDL_GOODBYE] * 3 + [wire.IPP_GOODBYE] * 3)
