"""Printers when memory, the status file or a packet can't be had, and unlucky coincidences."""

import pytest
import wire
from board import ANSWERING, LPIOC_GET_DEVICE_ID, MONITOR, RESPONDER, SIOCGIFADDR
from lab import packets
from lab.usage import usage, usage_once_senders_ended

STATUS_FILE = "/proc/printer_status"
INSERTED = "[Bonjour] device insert lp0"
REMOVED = "[Bonjour] device remove lp0"
NO_MEMORY = "[Bonjour] malloc error: Cannot allocate memory"
NO_TEXT = "[Bonjour] GetTXTData error"
NOT_REGISTERED = "**********RegisterOneService error*************"
NOT_UNREGISTERED = "**********UnRegisterOneService error*************"
IPP_QUESTION = packets.query(("_ipp._tcp.local", "PTR"))
PDL_QUESTION = packets.query(("_pdl-datastream._tcp.local", "PTR"))

# Sizes in bytes of what the monitor takes from the heap: a buffer for the status file, a TXT buffer
# and its link, a registry entry, a device id; the raw-port service's host name, instance name and
# type name with their terminators.
STATUS_BUFFER = 40961
TXT_BUFFER = 528
ENTRY = 232
DEVICE_ID = 513
PDL_HOST = 30
PDL_INSTANCE = 52
PDL_TYPE = 27


@pytest.fixture
def daemon(start):
    return start()


def payloads(lab, since=0):
    return {packet.payload for packet in lab.sent(since)}


def announced_ipp_alone(lab, daemon):
    """Whether, once all is quiet, only the IPP service of the printer was announced."""
    lab.wait_for_transmissions(wire.IPP_RECORDS)
    usage_once_senders_ended(daemon.pid)
    return payloads(lab) == {wire.HOST_PROBE, wire.IPP_PROBE, wire.IPP_RECORDS}


def test_no_memory_for_the_work_buffer_ends_the_monitor_alone(lab, router, board, start):
    router.plug_in(0)
    board.fail("calloc", "ENOMEM", thread=MONITOR, about=STATUS_BUFFER)
    opens = board.observe("open", thread=MONITOR)
    daemon = start()
    daemon.wait_for_line(NO_MEMORY)
    assert lab.ask(wire.HOST_QUESTION) == [wire.HOST_ANSWER]
    assert opens.seen == 0
    assert not daemon.count(INSERTED)


def test_no_memory_for_a_txt_buffer_leaves_out_that_service(lab, router, board, daemon):
    board.fail("calloc", "ENOMEM", thread=MONITOR, about=TXT_BUFFER)
    router.plug_in(0)
    assert announced_ipp_alone(lab, daemon)
    assert daemon.texts("stderr") == [NO_MEMORY]
    # At the removal the service without a buffer is passed over.
    since = lab.capture.mark()
    router.pull_out(0)
    lab.wait_for_transmissions(wire.IPP_GOODBYE, since)
    usage_once_senders_ended(daemon.pid)
    assert payloads(lab, since) == {wire.IPP_GOODBYE}


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


def test_file_that_is_empty_for_a_text_gives_no_text_without_a_reason(lab, router, board, start):
    # The monitor's own pass takes two reads, the second of which finds the end.
    board.fail("read", "EIO", thread=MONITOR, skip=2)
    router.plug_in(0)
    daemon = start()
    assert announced_ipp_alone(lab, daemon)
    assert daemon.texts("stderr") == []
    assert daemon.count(NO_TEXT) == 1


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


def test_later_read_that_fails_ends_the_text(router, board, daemon):
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


# The third line of the record ends with the last byte that is read, or with the one behind it.
@pytest.mark.parametrize("beyond, inserts", [(0, [INSERTED]), (1, [])], ids=["last", "beyond"])
def test_reads_ask_for_4096_bytes_and_40960_in_all(router, board, daemon, beyond, inserts):
    record = "usblp0\nHP\nModel 12\n"
    reads = board.observe("read", thread=MONITOR, times=None)
    router.status_file.replace("x" * (40960 - len(record) + beyond) + record + "PCL\n\n" * 1000)
    passes = board.observe("open", thread=MONITOR, path=STATUS_FILE, times=None)
    passes.wait(3)
    assert reads.most_bytes == 4096
    assert [text for text in daemon.texts() if "device" in text and "lp" in text] == inserts


def test_no_memory_for_an_entry_leaves_the_service_out(lab, router, board, daemon, holdings):
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
    assert payloads(lab, since) == {wire.IPP_GOODBYE}
    assert daemon.texts("stderr") == [NO_MEMORY]
    assert daemon.texts("stdout")[-3:] == [
        REMOVED,
        "[Bonjour] PacketsComposeRemove error",
        NOT_UNREGISTERED,
    ]
    assert lab.ask(PDL_QUESTION) == [wire.PDL_RECORDS]
    router.stop()
    lab.wait_for_transmissions(wire.PDL_GOODBYE, since)


def test_no_memory_for_a_device_id_is_reported(lab, router, board, daemon):
    router.connect_device(0, "MFG:HP;MODEL:Model 12;")
    board.fail("calloc", "ENOMEM", thread=MONITOR, about=DEVICE_ID)
    router.plug_in(0, model="")
    daemon.wait_for_line(NO_MEMORY)
    daemon.wait_for_line(NO_TEXT)
    assert daemon.count(NO_TEXT) == 1


def test_device_that_breaks_off_is_closed_and_asked_again_for_the_next_service(
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


# What meets at a bad moment


def test_printer_removed_while_the_stop_withdraws_it_is_withdrawn_once(
    lab, router, board, daemon
):
    router.plug_in(0)
    lab.wait_for_transmissions(wire.IPP_RECORDS)
    usage_once_senders_ended(daemon.pid)
    since = lab.capture.mark()
    held = board.hold("calloc", thread=MONITOR, about=PDL_INSTANCE)
    withdrawn = board.observe("calloc", thread=RESPONDER, about=PDL_INSTANCE)
    router.pull_out(0)
    held.wait()
    daemon.signal(15)
    withdrawn.wait()
    lab.wait_for_transmissions(wire.IPP_GOODBYE, since)
    held.release()
    router.stop()
    assert daemon.texts("stderr") == []
    assert daemon.count("[Bonjour] SERVICE_REMOVE error") == 2


def test_printer_that_comes_when_the_stop_has_withdrawn_all_is_not_published(
    lab, router, board, daemon
):
    held = board.hold("calloc", thread=MONITOR, about=ENTRY)
    router.plug_in(0)
    held.wait()
    since = lab.capture.mark()
    daemon.signal(15)
    # The registration is not waited for in all eternity: the responder's thread ends.
    daemon.wait_until(lambda: usage(daemon.pid).threads == 2, "the responder has ended")
    held.release()
    router.stop()
    assert lab.sent(since) == []
    assert daemon.texts("stderr") == []
    assert daemon.texts("stdout")[-2:] == ["[Bonjour] SERVICE_ADD error", NOT_REGISTERED]


def test_printer_that_goes_during_an_answer_is_answered_first(lab, router, board, daemon):
    router.plug_in(0)
    lab.wait_for_transmissions(wire.IPP_RECORDS)
    usage_once_senders_ended(daemon.pid)
    since = lab.capture.mark()
    held = board.hold("ioctl", thread=ANSWERING, about=SIOCGIFADDR)
    lab.host.send(IPP_QUESTION)
    held.wait()
    router.pull_out(0)
    daemon.wait_for_line(REMOVED)
    lab.wait_for_transmissions(wire.PDL_GOODBYE, since)
    held.release()
    lab.wait_for_transmissions(wire.IPP_RECORDS, since)
    lab.wait_for_transmissions(wire.IPP_GOODBYE, since)
    usage_once_senders_ended(daemon.pid)
    assert lab.ask(IPP_QUESTION) == []
    assert daemon.texts("stderr") == []


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
    # The printer's second service begins behind the stop.
    assert daemon.texts("stdout")[-2:] == ["[Bonjour] SERVICE_ADD error", NOT_REGISTERED]
    assert wire.IPP_RECORDS not in payloads(lab, since)


def test_answer_under_way_at_the_stop_is_sent_three_times_before_the_goodbyes(
    lab, router, board, daemon
):
    router.plug_in(0)
    lab.wait_for_transmissions(wire.IPP_RECORDS)
    usage_once_senders_ended(daemon.pid)
    since = lab.capture.mark()
    held = board.hold("ioctl", thread=ANSWERING, about=SIOCGIFADDR)
    lab.host.send(IPP_QUESTION)
    held.wait()
    daemon.signal(15)
    held.release()
    router.stop()
    sent = [packet.payload for packet in lab.sent(since)]
    assert sent[:3] == [wire.IPP_RECORDS] * 3
    assert sorted(sent[3:]) == sorted([wire.PDL_GOODBYE] * 3 + [wire.IPP_GOODBYE] * 3)
