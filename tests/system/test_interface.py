"""The bridge: late, without an address, changed, gone."""

import time

import pytest
import wire
from lab.packets import hexbytes
from lab.printers import Printer

BROWSE_IPP = hexbytes(f"{wire.QUERY_1} {wire.IPP} 000C 0001")
CONNECTED = "[Bonjour] Interface: br0 is connected"
GAVE_UP = "MDNS_SocketSetup() MDNS_SELF_BIND1 error"
SETUP_FAILED = "[SocketSetup_For_Interface_N] UpdateHostIP error"
ANSWER_FAILED = "[MDNS_Answer] UpdateHostIP error"
NO_FLAGS = "[Bonjour] ioctl SIOCGIFFLAGS failed:br0"
NO_ADDRESS = "[Bonjour] ioctl SIOCGIFADDR failed:br0"


@pytest.mark.seconds(20)
@pytest.mark.lab(bridge=False)
def test_missing_bridge_is_reported_at_each_try_for_five_seconds_and_then_used_without_probing(
    lab, router
):
    start = time.time()
    daemon = router.start(ready=False)
    assert daemon.wait_for_line(GAVE_UP, bound=20).time - start > 5
    texts = daemon.texts("stdout")
    tries = texts.index(GAVE_UP) // 2
    assert texts[: 2 * tries] == [NO_FLAGS, SETUP_FAILED] * tries
    assert 5 <= tries <= 8
    daemon.wait_for_line("[Bonjour] ioctl SIOCGIFFLAGS failed: No such device", count=tries)

    router.add_bridge("192.168.77.1/24")
    daemon.wait_for_line(CONNECTED, bound=20)
    router.wait_for_banner()
    assert lab.sent() == []
    assert daemon.texts("stdout")[-3:-1] == [
        CONNECTED,
        "[Bonjour] Answer Name Start (192.168.77.1)",
    ]
    name = "17 'T5140_00-00-00-00-00-00' 05 'local' 00"
    assert lab.ask(hexbytes(f"{wire.QUERY_1} {name} 0001 0001")) == [
        hexbytes(f"{wire.RESPONSE_1} {name} 0001 0001 00000078 0004 C0A84D01")
    ]


@pytest.mark.lab(address=None)
def test_bridge_without_an_address_is_reported_and_probed_once_it_has_one(lab, router):
    daemon = router.start(ready=False)
    daemon.wait_for_line(SETUP_FAILED)
    daemon.wait_for_line("[Bonjour] ioctl SIOCGIFADDR failed: Cannot assign requested address")
    assert daemon.texts("stdout")[:2] == [NO_ADDRESS, SETUP_FAILED]
    router.set_address("192.168.77.1/24")
    daemon.wait_for_line(CONNECTED)
    lab.wait_for_packet(wire.HOST_PROBE)
    router.end_probe()
    router.wait_for_banner()
    assert daemon.device_name == "T5140_00-11-22-AA-BB-CC"
    assert GAVE_UP not in daemon.texts()


def test_changed_address_is_in_the_next_answer_and_not_announced_and_none_is_no_answer(
    lab, router, daemon_with_printer, host
):
    before, after = hexbytes("0004 C0A84D01"), hexbytes("0004 C0A84D05")
    host_answer = wire.HOST_ANSWER.replace(before, after)
    records = wire.IPP_RECORDS.replace(before, after)
    since, lines = lab.capture.mark(), daemon_with_printer.mark()
    router.set_address("192.168.77.5/24")
    # Two whole looks at the printers pass.
    for _ in range(2):
        router.status_file.replace(Printer(0).record())
        router.status_file.wait_until_read()
    assert lab.sent(since) == []
    assert lab.ask(wire.HOST_QUESTION) == [host_answer]
    # The line tells the address as it was known before the answer.
    host_line, _ = daemon_with_printer.texts(since=lines)
    assert host_line == "[Bonjour] answer(192.168.77.1) query target from 192.168.77.10 (47)"
    assert lab.ask(BROWSE_IPP) == [records]

    router.delete_address()
    lines = daemon_with_printer.mark()
    for number, question in enumerate((wire.HOST_QUESTION, BROWSE_IPP), start=1):
        host.send(question)
        daemon_with_printer.wait_for_line(ANSWER_FAILED, count=number)
    assert daemon_with_printer.texts("stdout", lines) == [
        "[Bonjour] answer(192.168.77.5) query target from 192.168.77.10 (47)",
        NO_ADDRESS,
        ANSWER_FAILED,
        "[Bonjour] answer(192.168.77.5) query _ipp from 192.168.77.10 (33)",
        NO_ADDRESS,
        ANSWER_FAILED,
    ]
    router.set_address("192.168.77.5/24")
    assert lab.ask(wire.HOST_QUESTION) == [host_answer]
    assert {packet.payload for packet in lab.sent(since)} == {host_answer, records}
