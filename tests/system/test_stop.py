"""The stop: signals, goodbyes, exit status."""

import signal

import wire


def test_stop_signals_end_the_daemon_with_three_goodbyes_a_service_and_no_line(
    lab, router, daemon_with_printer
):
    """A broken pipe's signal is ignored; of several that stop it the first counts."""
    since, lines = lab.capture.mark(), daemon_with_printer.mark()
    daemon_with_printer.signal(signal.SIGPIPE)
    daemon_with_printer.signal(signal.SIGINT)
    daemon_with_printer.signal(signal.SIGTERM)
    router.stop()
    lab.wait_for_transmissions(wire.PDL_GOODBYE, since)
    lab.wait_for_transmissions(wire.IPP_GOODBYE, since)
    assert len(lab.sent(since)) == 6
    assert daemon_with_printer.texts(since=lines) == []


def test_stop_during_the_probe_ends_the_daemon_after_its_banner(lab, router):
    daemon = router.start(ready=False)
    lab.wait_for_packet(wire.HOST_PROBE)
    router.stop()
    assert daemon.device_name == "T5140_00-11-22-AA-BB-CC"
    router.wait_for_banner()
