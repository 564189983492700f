"""The bridge: late, without an address, changed, gone."""

import re
import signal
import socket
import time

import pytest
import wire
from lab.packets import hexbytes

BROWSE_IPP = hexbytes(f"{wire.QUERY_1} {wire.IPP} 000C 0001")
CONNECTED = "[Bonjour] Interface: br0 is connected"
GAVE_UP = "MDNS_SocketSetup() MDNS_SELF_BIND1 error"
SETUP_FAILED = "[SocketSetup_For_Interface_N] UpdateHostIP error"
ANSWER_FAILED = "[MDNS_Answer] UpdateHostIP error"
NO_FLAGS = "[Bonjour] ioctl SIOCGIFFLAGS failed:br0"
NO_ADDRESS = "[Bonjour] ioctl SIOCGIFADDR failed:br0"
PERROR_FLAGS = "[Bonjour] ioctl SIOCGIFFLAGS failed: No such device"
PERROR_ADDRESS = "[Bonjour] ioctl SIOCGIFADDR failed: Cannot assign requested address"
PERROR_HWADDR = "[Bonjour] ioctl HWADDR error: No such device"


def host_answer(address):
    return hexbytes(f"{wire.RESPONSE_1} {wire.HOST} 0001 0001 00000078 0004 {address}")


@pytest.mark.seconds(20)
@pytest.mark.lab(bridge=False)
def test_bridge_that_comes_late_is_used_without_probing(lab, router):
    daemon = router.start(ready=False)
    gave_up = daemon.wait_for_line(GAVE_UP, bound=20)
    named = daemon.wait_for_line("[Bonjour] default device name = T5140_00-00-00-00-00-00")
    assert CONNECTED not in daemon.texts()
    router.add_bridge("192.168.77.1/24")
    daemon.wait_for_line(CONNECTED, bound=20)
    router.wait_for_banner()
    assert named.time - gave_up.time < 5
    assert lab.sent() == []
    texts = daemon.texts("stdout")
    assert texts[-3:-1] == [CONNECTED, "[Bonjour] Answer Name Start (192.168.77.1)"]
    name = "17 'T5140_00-00-00-00-00-00' 05 'local' 00"
    assert lab.ask(hexbytes(f"{wire.QUERY_1} {name} 0001 0001")) == [
        hexbytes(f"{wire.RESPONSE_1} {name} 0001 0001 00000078 0004 C0A84D01")
    ]


@pytest.mark.seconds(10)
@pytest.mark.lab(bridge=False)
def test_missing_bridge_is_reported_at_each_try_until_more_than_five_seconds_passed(router):
    start = time.time()
    daemon = router.start(ready=False)
    assert daemon.wait_for_line(GAVE_UP, bound=20).time - start > 5
    daemon.wait_for_line(PERROR_HWADDR)
    daemon.wait_for_line("[Bonjour] default device name = T5140_00-00-00-00-00-00")
    texts = daemon.texts("stdout")
    tries = texts.index(GAVE_UP) // 2
    assert texts[: 2 * tries] == [NO_FLAGS, SETUP_FAILED] * tries
    assert 5 <= tries <= 8
    daemon.wait_for_line(PERROR_FLAGS, count=tries)
    daemon.kill()


@pytest.mark.lab(address=None)
def test_bridge_without_an_address_is_reported_and_probed_once_it_has_one(lab, router):
    daemon = router.start(ready=False)
    daemon.wait_for_line(SETUP_FAILED)
    daemon.wait_for_line(PERROR_ADDRESS)
    assert daemon.texts("stdout")[:2] == [NO_ADDRESS, SETUP_FAILED]
    router.set_address("192.168.77.1/24")
    daemon.wait_for_line(CONNECTED)
    lab.wait_for_packet(wire.HOST_PROBE)
    router.end_probe()
    router.wait_for_banner()
    assert daemon.device_name == "T5140_00-11-22-AA-BB-CC"
    assert GAVE_UP not in daemon.texts()


@pytest.mark.seconds(20)
@pytest.mark.lab(address=None)
def test_bridge_without_an_address_keeps_its_hardware_address_in_the_name(lab, router):
    daemon = router.start(ready=False)
    daemon.wait_for_line(GAVE_UP, bound=20)
    daemon.wait_for_line("[Bonjour] default device name = T5140_00-11-22-AA-BB-CC")
    router.set_address("192.168.77.1/24")
    router.wait_for_banner()
    assert lab.ask(wire.HOST_QUESTION) == [wire.HOST_ANSWER]


@pytest.mark.lab(bridge=False)
def test_bridge_that_comes_within_five_seconds_is_probed_under_the_name_of_no_address(lab, router):
    daemon = router.start(ready=False)
    daemon.wait_for_line(SETUP_FAILED)
    router.add_bridge("192.168.77.1/24")
    lab.wait_for_packet(
        hexbytes(f"{wire.QUERY_1} 17 'T5140_00-00-00-00-00-00' 05 'local' 00 0001 0001")
    )
    router.end_probe()
    router.wait_for_banner()
    daemon.wait_for_line(PERROR_HWADDR)


@pytest.mark.lab(bridge=False)
def test_stop_before_the_bridge_is_there_ends_the_responder_but_not_the_process(router):
    daemon = router.start(ready=False)
    # At the second try the initial thread waits for the responder, as it will for good.
    daemon.wait_for_line(SETUP_FAILED, count=2)
    threads = daemon.threads()
    daemon.signal(signal.SIGTERM)
    daemon.wait_for_line("[Bonjour] default device name = T5140_00-00-00-00-00-00")
    daemon.wait_until(lambda: daemon.threads() == threads - 1, "the responder thread ends")
    assert daemon.running
    assert GAVE_UP not in daemon.texts()
    daemon.kill()


def test_changed_address_is_in_the_next_answer(lab, router, daemon):
    router.set_address("192.168.77.5/24")
    lines = daemon.mark()
    assert lab.ask(wire.HOST_QUESTION) == [host_answer("C0 A8 4D 05")]
    # The line tells the address as it was known before the answer.
    assert daemon.texts(since=lines)[0] == (
        "[Bonjour] answer(192.168.77.1) query target from 192.168.77.10 (47)"
    )
    daemon.wait_for_line(
        re.compile(r"\[Bonjour\] answer\(192\.168\.77\.5\) query target from .*"), since=lines
    )


def test_changed_address_is_in_the_next_service_answer(lab, router, daemon_with_printer):
    router.set_address("192.168.77.5/24")
    assert lab.ask(BROWSE_IPP) == [
        wire.IPP_RECORDS.replace(hexbytes("0004 C0A84D01"), hexbytes("0004 C0A84D05"))
    ]


def test_own_packets_are_known_by_the_address_at_the_start(lab, router, daemon):
    router.set_address("192.168.77.5/24")
    lab.ask(wire.HOST_QUESTION)
    usurper = lab.add_host("192.168.77.1")
    assert lab.ask(wire.HOST_QUESTION, host=usurper, port=0) == []
    with router.network.entered(), socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as own:
        own.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton("192.168.77.5"))
        since, lines = lab.capture.mark(), daemon.mark()
        own.sendto(wire.HOST_QUESTION, ("224.0.0.251", 5353))
    assert lab.answers(since, lines) == [host_answer("C0 A8 4D 05")]


def test_question_is_not_answered_while_the_address_is_gone(lab, router, daemon_with_printer, host):
    router.delete_address()
    host.send(wire.HOST_QUESTION)
    daemon_with_printer.wait_for_line(ANSWER_FAILED)
    host.send(BROWSE_IPP)
    daemon_with_printer.wait_for_line(ANSWER_FAILED, count=2)
    daemon_with_printer.wait_for_line(PERROR_ADDRESS, count=2)
    assert daemon_with_printer.texts("stdout")[-6:] == [
        "[Bonjour] answer(192.168.77.1) query target from 192.168.77.10 (47)",
        NO_ADDRESS,
        ANSWER_FAILED,
        "[Bonjour] answer(192.168.77.1) query _ipp from 192.168.77.10 (33)",
        NO_ADDRESS,
        ANSWER_FAILED,
    ]
    since = lab.capture.mark()
    router.set_address("192.168.77.1/24")
    assert lab.ask(wire.HOST_QUESTION) == [wire.HOST_ANSWER]
    assert {packet.payload for packet in lab.sent(since)} == {wire.HOST_ANSWER}


@pytest.mark.seconds(8)
def test_failed_sending_is_reported_once_a_packet_and_not_repeated(router, daemon):
    router.delete_bridge()
    router.plug_in(0)
    daemon.wait_for_line("[Bonjour] device insert lp0")
    failed = re.compile(r"\[Bonjour\] send packet error: .*")
    daemon.wait_for_line(failed, count=4)
    # The next printer comes at least a pass of the monitor later, when repeated transmissions would
    # long be over: they would have made twelve lines. Its own four may be here already.
    router.plug_in(1)
    daemon.wait_for_line("[Bonjour] device insert lp1")
    assert sum(1 for text in daemon.texts() if failed.fullmatch(text)) <= 8
