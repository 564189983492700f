"""Start-up: the first packets and the log."""

import re
import time

import pytest
import wire

TIMEOUT = "[Bonjour] MDNS_CheckName: receive packet timeout"
BANNER = r"\[QX\] T5140 Bonjour v2\.1 Start \([A-Z][a-z]{2} [ \d]\d \d{4} \d\d:\d\d:\d\d\)"


@pytest.mark.seconds(8)
def test_probe_is_sent_three_times_and_nothing_else_in_five_silent_seconds_and_each_step_is_logged(
    lab, router
):
    # A line is seen some time after it was written: only the start is surely not late.
    start = time.time()
    daemon = router.start(fast=False)
    assert daemon.wait_for_line(TIMEOUT).time - start >= 5
    for packet in lab.wait_for_transmissions(wire.HOST_PROBE):
        assert (packet.source, packet.source_port) == ("192.168.77.1", 5353)
        assert (packet.destination, packet.port) == ("224.0.0.251", 5353)
    assert {packet.payload for packet in lab.sent()} == {wire.HOST_PROBE}
    *lines, banner = daemon.texts()
    assert lines == [
        "[Bonjour] Interface: br0 is connected",
        TIMEOUT,
        "[Bonjour] default device name = T5140_00-11-22-AA-BB-CC",
        "[Bonjour] Answer Name Start (192.168.77.1)",
    ]
    assert re.fullmatch(BANNER, banner)
