"""The stop: signals, goodbyes, exit status."""

import signal

import pytest
import wire
from lab.printers import Printer


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT], ids=["SIGTERM", "SIGINT"])
def test_signal_ends_the_daemon_with_status_0_and_logs_nothing(router, daemon, number):
    before = daemon.texts()
    router.stop(number)
    assert daemon.wait_for_exit() == 0
    assert daemon.texts() == before


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT], ids=["SIGTERM", "SIGINT"])
def test_signal_withdraws_the_printer_with_three_goodbyes_a_service(
    lab, router, daemon_with_printer, number
):
    since = lab.capture.mark()
    router.stop(number)
    lab.wait_for_transmissions(wire.PDL_GOODBYE, since)
    lab.wait_for_transmissions(wire.IPP_GOODBYE, since)
    assert len(lab.sent(since)) == 6


def test_every_printer_is_withdrawn(lab, router):
    router.plug_in_all(Printer(port, "Acme", f"Jet {port}", "PCL") for port in range(10))
    router.start()
    lab.wait_for_packet(lambda packet: True, count=3 + 10 * 4 * 3)
    since = lab.capture.mark()
    router.stop()
    gone = lab.wait_for_packet(lambda packet: True, since, count=60)
    assert {packet.message.answers[0].data for packet in gone} == {
        f"Acme Jet {port} (aa:bb:cc) {port}.{service_type}.local"
        for port in range(10)
        for service_type in ("_pdl-datastream._tcp", "_ipp._tcp")
    }
    assert len(lab.sent(since)) == 60


def test_printer_that_was_removed_before_is_not_withdrawn_again(lab, router, daemon_with_printer):
    router.pull_out(0)
    lab.wait_for_transmissions(wire.PDL_GOODBYE)
    lab.wait_for_transmissions(wire.IPP_GOODBYE)
    since = lab.capture.mark()
    router.stop()
    assert lab.sent(since) == []


def test_service_that_a_changed_line_left_behind_is_withdrawn(lab, router, daemon_with_printer):
    router.plug_in(0, "HP", "Model 13", "PJL,PCL")
    router.status_file.wait_until_read()
    router.pull_out(0)
    daemon_with_printer.wait_for_line("**********UnRegisterOneService error*************", count=2)
    since = lab.capture.mark()
    router.stop()
    lab.wait_for_transmissions(wire.PDL_GOODBYE, since)
    lab.wait_for_transmissions(wire.IPP_GOODBYE, since)


def test_broken_pipe_signal_is_ignored(lab, daemon):
    daemon.signal(signal.SIGPIPE)
    assert lab.ask(wire.HOST_QUESTION) == [wire.HOST_ANSWER]


def test_second_signal_changes_nothing(lab, router, daemon_with_printer):
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


def test_stop_right_after_a_printer_came_withdraws_it(lab, router, daemon):
    router.plug_in(0)
    daemon.wait_for_line("[Bonjour] device insert lp0")
    lab.wait_for_packet(wire.IPP_RECORDS)
    router.stop()
    lab.wait_for_transmissions(wire.PDL_GOODBYE)
    lab.wait_for_transmissions(wire.IPP_GOODBYE)
