"""Start-up when the system refuses something: threads, sockets, requests."""

import socket

import pytest
import wire
from board import INITIAL, JOINABLE, RESPONDER, descriptors, option

CONNECTED = "[Bonjour] Interface: br0 is connected"
NAME = "[Bonjour] default device name = T5140_00-11-22-AA-BB-CC"
ANSWERS = "[Bonjour] Answer Name Start (192.168.77.1)"
NO_THREAD = "[Bonjour] pthread_create error: Resource temporarily unavailable"


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


@pytest.mark.parametrize(
    "function, about, error",
    [
        ("bind", -1, "[Bonjour] discovery bind: Address already in use"),
        (
            "setsockopt",
            option(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP),
            "[Bonjour] setsockopt IP_ADD_MEMBERSHIP: Address already in use",
        ),
    ],
    ids=["bind", "IP_ADD_MEMBERSHIP"],
)
def test_refused_set_up_is_reported_and_tried_again_after_a_second(
    board, start, function, about, error
):
    refused = board.fail(function, "EADDRINUSE", thread=RESPONDER, about=about)
    daemon = start(ready=False)
    connected = daemon.wait_for_line(CONNECTED)
    assert connected.time - refused.latest / 1e9 >= 0.99
    assert daemon.texts("stderr") == [error]
    assert descriptors(daemon.pid).count("socket") == 1
