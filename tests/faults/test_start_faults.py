"""Start-up when the system refuses something: threads, sockets, requests."""

import re
import socket
import time

import pytest
import wire
from board import ANSWERING, INITIAL, JOINABLE, PROBER, RESPONDER, SIOCGIFADDR, SIOCGIFFLAGS
from board import SIOCGIFHWADDR, option

CONNECTED = "[Bonjour] Interface: br0 is connected"
NAME = "[Bonjour] default device name = T5140_00-11-22-AA-BB-CC"
ANSWERS = "[Bonjour] Answer Name Start (192.168.77.1)"
NO_ADDRESS = "[SocketSetup_For_Interface_N] UpdateHostIP error"
NO_NAME = "[Bonjour] default device name = T5140_00-00-00-00-00-00"
REFUSED = "[Bonjour] discovery bind: Address already in use"
GAVE_UP = "MDNS_SocketSetup() MDNS_SELF_BIND1 error"
BANNER = re.compile(r"\[QX\] T5140 Bonjour v2\.1 Start \(.*\)")
NO_THREAD = "[Bonjour] pthread_create error: Resource temporarily unavailable"

# What is printed on both streams can be put in one order.
IN_ONE_STREAM = ["sh", "-c", 'exec "$0" "$@" 2>&1']

STEPS = [
    ("SO_REUSEADDR", socket.SOL_SOCKET, socket.SO_REUSEADDR),
    ("SO_BINDTODEVICE", socket.SOL_SOCKET, socket.SO_BINDTODEVICE),
    ("IP_ADD_MEMBERSHIP", socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP),
    ("IP_MULTICAST_IF", socket.IPPROTO_IP, socket.IP_MULTICAST_IF),
    ("IP_MULTICAST_LOOP", socket.IPPROTO_IP, socket.IP_MULTICAST_LOOP),
    ("SO_RCVTIMEO", socket.SOL_SOCKET, 20),
]


def test_refused_hardware_address_is_reported_and_the_name_has_none(board, start):
    board.fail("ioctl", "EPERM", thread=INITIAL, about=SIOCGIFHWADDR)
    daemon = start()
    assert daemon.texts("stderr") == ["[Bonjour] ioctl HWADDR error: Operation not permitted"]
    assert daemon.count(NO_NAME) == 1


def test_no_socket_for_the_hardware_address_gives_the_name_without_it_and_no_line(board, start):
    board.fail("socket", "EMFILE", thread=INITIAL)
    daemon = start()
    assert daemon.texts("stderr") == []
    assert daemon.count(NO_NAME) == 1


def test_no_responder_thread_ends_the_daemon_at_once_with_status_0(board, start):
    board.fail("pthread_create", "EAGAIN", thread=INITIAL, about=JOINABLE)
    daemon = start(ready=False)
    assert daemon.wait_for_exit() == 0
    assert daemon.texts() == [NO_THREAD]


def test_no_monitor_thread_ends_the_daemon_behind_its_banner(board, start):
    board.fail("pthread_create", "EAGAIN", thread=INITIAL, about=JOINABLE, skip=1)
    daemon = start()
    assert daemon.wait_for_exit() == 0
    assert daemon.texts("stderr") == [NO_THREAD]
    assert daemon.count(ANSWERS) == 1


def test_no_prober_thread_lets_the_name_stand_unprobed(lab, board, start):
    board.fail("pthread_create", "EAGAIN", thread=RESPONDER, about=JOINABLE)
    daemon = start(fast=False)
    assert daemon.texts("stderr") == [
        "[Bonjour] pthread_create: Resource temporarily unavailable"
    ]
    assert daemon.texts("stdout")[:3] == [CONNECTED, NAME, ANSWERS]
    assert lab.sent() == []
    assert lab.ask(wire.HOST_QUESTION) == [wire.HOST_ANSWER]


def test_no_answering_thread_leaves_a_router_that_announces_and_withdraws(
    lab, router, board, start
):
    board.fail("pthread_create", "EAGAIN", thread=RESPONDER, about=JOINABLE, skip=1)
    daemon = start()
    assert daemon.texts("stderr") == [NO_THREAD]
    assert daemon.count(ANSWERS) == 1
    router.plug_in(0)
    lab.wait_for_transmissions(wire.IPP_RECORDS)
    since = lab.capture.mark()
    lab.host.send(wire.HOST_QUESTION)
    router.stop()
    lab.wait_for_transmissions(wire.IPP_GOODBYE, since)
    assert wire.HOST_ANSWER not in {packet.payload for packet in lab.sent(since)}


@pytest.mark.parametrize("name, level, number", STEPS, ids=[step[0] for step in STEPS])
def test_refused_socket_option_is_reported_and_set_up_again_after_a_second(
    lab, board, start, name, level, number
):
    refused = board.fail("setsockopt", "ENOPROTOOPT", about=option(level, number))
    daemon = start(ready=False)
    connected = daemon.wait_for_line(CONNECTED)
    failed = daemon.wait_for_line(f"[Bonjour] setsockopt {name}: Protocol not available")
    assert failed.stream == "stderr"
    assert connected.time - refused.latest >= 0.99
    assert refused.hits == 1
    assert daemon.texts("stderr") == [failed.text]


def test_refused_bind_is_reported_and_set_up_again_after_a_second(board, start, holdings):
    board.fail("bind", "EADDRINUSE")
    daemon = start()
    assert daemon.texts("stderr") == [REFUSED]
    assert daemon.count(CONNECTED) == 1


def test_failed_set_up_leaves_no_socket_behind(board, start):
    from board import descriptors

    board.fail("bind", "EADDRINUSE", times=3)
    daemon = start()
    assert descriptors(daemon.pid).count("socket") == 1


def test_no_multicast_socket_is_no_line_and_another_try(board, start):
    board.fail("socket", "ENFILE", thread=RESPONDER, skip=1)
    tries = board.observe("ioctl", thread=RESPONDER, about=SIOCGIFADDR, times=None)
    daemon = start()
    assert daemon.texts("stderr") == []
    assert daemon.texts("stdout")[0] == CONNECTED
    # Two set-ups, and the look of the supervision after them.
    assert tries.hits == 3


def test_no_control_socket_is_reported_by_the_set_up_alone(board, start):
    board.fail("socket", "ENFILE", thread=RESPONDER)
    daemon = start()
    assert daemon.texts("stderr") == []
    assert daemon.texts("stdout")[:2] == [NO_ADDRESS, CONNECTED]


@pytest.mark.parametrize(
    "name, request_number", [("SIOCGIFFLAGS", SIOCGIFFLAGS), ("SIOCGIFADDR", SIOCGIFADDR)]
)
def test_refused_address_request_is_reported_on_both_streams(board, start, name, request_number):
    board.fail("ioctl", "ENODEV", thread=RESPONDER, about=request_number)
    daemon = start()
    assert daemon.texts("stderr") == [f"[Bonjour] ioctl {name} failed: No such device"]
    assert daemon.texts("stdout")[:3] == [
        f"[Bonjour] ioctl {name} failed:br0",
        NO_ADDRESS,
        CONNECTED,
    ]


@pytest.mark.seconds(17)
def test_set_up_is_given_up_after_five_seconds_and_tried_again_by_the_supervision(
    lab, board, start
):
    refused = board.fail("bind", "EADDRINUSE", times=None)
    begun = time.time()
    daemon = start(ready=False, wrapper=IN_ONE_STREAM)
    gave_up = daemon.wait_for_line(GAVE_UP)
    assert gave_up.time - begun > 5
    lines = daemon.texts()
    tries = lines[: lines.index(GAVE_UP)].count(REFUSED)
    assert 6 <= tries <= 8
    daemon.wait_for_line(NAME)
    # The supervision's own first try follows at once, the next ten seconds later.
    second = daemon.wait_for_line(REFUSED, count=tries + 1)
    refused.lift()
    connected = daemon.wait_for_line(CONNECTED, bound=15)
    assert connected.time - refused.latest >= 9.99
    assert second.time < connected.time
    daemon.wait_for_line(ANSWERS)
    daemon.wait_for_line(BANNER)
    # The name is used as it is: no probe.
    assert lab.sent() == []
    assert lab.ask(wire.HOST_QUESTION) == [wire.HOST_ANSWER]


def test_failed_receive_while_probing_counts_as_silence(board, start):
    board.fail("recvfrom", "EIO", thread=PROBER)
    daemon = start(fast=False)
    assert daemon.texts("stdout")[1:3] == [
        "[Bonjour] MDNS_CheckName: receive packet timeout",
        NAME,
    ]
    assert daemon.texts("stderr") == []


def test_failed_receive_while_answering_is_passed_over(lab, board, start):
    failing = board.fail("recvfrom", "ENOMEM", thread=ANSWERING, times=50)
    daemon = start()
    failing.wait(50)
    assert lab.ask(wire.HOST_QUESTION) == [wire.HOST_ANSWER]
    assert daemon.texts("stderr") == []
