"""Start-up: the model, the device name, the log and the first packets."""

import re
import time

import pytest
import wire

CONNECTED = "[Bonjour] Interface: br0 is connected"
TIMEOUT = "[Bonjour] MDNS_CheckName: receive packet timeout"
BANNER = r"\[QX\] {} Bonjour v2\.1 Start \([A-Z][a-z]{{2}} [ \d]\d \d{{4}} \d\d:\d\d:\d\d\)"


def banner(model):
    return re.compile(BANNER.format(model))


@pytest.mark.seconds(8)
def test_start_on_a_silent_link_keeps_the_name_and_logs_each_step_in_order(router):
    daemon = router.start(fast=False)
    *lines, last = daemon.texts()
    assert lines == [
        CONNECTED,
        TIMEOUT,
        "[Bonjour] default device name = T5140_00-11-22-AA-BB-CC",
        "[Bonjour] Answer Name Start (192.168.77.1)",
    ]
    assert banner("T5140").fullmatch(last)
    assert daemon.texts("stderr") == []


@pytest.mark.seconds(8)
def test_probe_listens_for_five_silent_seconds(lab, router):
    # A line is seen some time after it was written: only the start is surely not late.
    start = time.time()
    daemon = router.start(fast=False)
    assert daemon.wait_for_line(TIMEOUT).time - start >= 5
    assert lab.capture.seen(lambda packet: packet.source != router.address) == []


def test_probe_is_one_question_for_an_a_record_sent_three_times(lab, daemon):
    for packet in lab.wait_for_transmissions(wire.HOST_PROBE):
        assert (packet.source, packet.source_port) == ("192.168.77.1", 5353)
        assert (packet.destination, packet.port) == ("224.0.0.251", 5353)


def test_nothing_but_the_probe_is_sent_without_printers_or_questions(lab, daemon):
    lab.wait_for_transmissions(wire.HOST_PROBE)
    assert {packet.payload for packet in lab.sent()} == {wire.HOST_PROBE}


def test_log_is_line_buffered(router):
    # The name is still being probed: nothing but line buffering brings this line through the pipe.
    daemon = router.start(ready=False)
    daemon.wait_for_line(CONNECTED)
    assert not daemon.count(TIMEOUT)
    router.end_probe()
    router.wait_for_banner()


@pytest.mark.parametrize("model", ["T5100b3", "GLXE4700"])
def test_model_is_accepted(router, model):
    daemon = router.start(model)
    assert daemon.device_name == f"{model}_00-11-22-AA-BB-CC"
    daemon.wait_for_line(banner(model))


@pytest.mark.parametrize("arguments", [["T5100b3", "T5100b3"], ["t5100b3"], [""]])
def test_any_other_model_means_t5140(router, arguments):
    daemon = router.start(*arguments)
    assert daemon.device_name == "T5140_00-11-22-AA-BB-CC"
    daemon.wait_for_line(banner("T5140"))


@pytest.mark.lab(mac="02:9a:bc:de:f0:01")
def test_name_carries_the_bridge_address_in_upper_case_hexadecimal(router):
    assert router.start().device_name == "T5140_02-9A-BC-DE-F0-01"


def test_monitor_starts_only_when_the_responder_is_up(router):
    router.plug_in(0)
    daemon = router.start(ready=False)
    daemon.wait_for_line(CONNECTED)
    router.end_probe()
    router.wait_for_banner()
    daemon.wait_for_line("[Bonjour] device insert lp0")
    texts = daemon.texts()
    assert texts.index("[Bonjour] Answer Name Start (192.168.77.1)") < texts.index(
        "[Bonjour] device insert lp0"
    )
