"""The stop: signals, goodbyes, exit status."""

import signal

import pytest
import wire


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT], ids=["SIGTERM", "SIGINT"])
def test_signal_ends_the_daemon_with_three_goodbyes_a_service_and_no_line(
    lab, router, daemon_with_printer, number
):
    since, lines = lab.capture.mark(), daemon_with_printer.mark()
    router.stop(number)
    assert daemon_with_printer.wait_for_exit() == 0
    lab.wait_for_transmissions(wire.PDL_GOODBYE, since)
    lab.wait_for_transmissions(wire.IPP_GOODBYE, since)
    assert len(lab.sent(since)) == 6
    assert daemon_with_printer.texts(since=lines) == []


def test_broken_pipe_signal_is_ignored_and_a_second_stop_signal_changes_nothing(
    lab, router, daemon_with_printer
):
    daemon_with_printer.signal(signal.SIGPIPE)
    assert lab.ask(wire.HOST_QUESTION) == [wire.HOST_ANSWER]
    since = lab.capture.mark()
    daemon_with_printer.signal(signal.SIGTERM)
    daemon_with_printer.signal(signal.SIGINT)
    router.stop()
    lab.wait_for_transmissions(wire.PDL_GOODBYE, since)
    lab.wait_for_transmissions(wire.IPP_GOODBYE, since)


def test_stop_during_the_probe_ends_the_daemon_after_its_banner(lab, router):
    daemon = router.start(ready=False)
    lab.wait_for_packet(wire.HOST_PROBE)
    router.stop()
    assert daemon.device_name == "T5140_00-11-22-AA-BB-CC"
    router.wait_for_banner()
