"""Probing of the host name: what a conflict leads to."""

import pytest
import wire
from lab.packets import HARMLESS, hexbytes

NAME = "T5140_00-11-22-AA-BB-CC"
REPEAT = "[Bonjour] MDNS_CheckName: device name repeat"
LIMIT = "[Bonjour] MDNS_CheckName: ignorePackets limits."


def probe(label):
    return hexbytes(f"{wire.QUERY_1} {label} 05 'local' 00 0001 0001")


def response(label):
    """An answer of a host that has the name with this first label, given in wire form."""
    return hexbytes(
        f"{wire.RESPONSE_1} {label} 05 'local' 00 0001 8001 {wire.TTL_120} 0004 C0A84D63"
    )


LABEL_1 = "19 'T5140_00-11-22-AA-BB-CC-1'"
LABEL_2 = "19 'T5140_00-11-22-AA-BB-CC-2'"
SAME = response("17 'T5140_00-11-22-AA-BB-CC'")


@pytest.fixture
def probing(lab, router):
    """The daemon, in the middle of its first probe."""
    daemon = router.start(ready=False)
    lab.wait_for_packet(wire.HOST_PROBE)
    return daemon


def end_pass(lab, router, number, label):
    """Ends the `number`th pass, in which a conflict was found and all is sent; returns once the
    next one, a second later, probes for the label."""
    router.end_probe()
    line = router.daemon.wait_for_line(LIMIT, count=number)
    (ending,) = lab.capture.seen(lambda packet: packet.payload == HARMLESS)[-1:]
    fresh = lab.wait_for_packet(
        lambda packet: packet.payload == probe(label) and packet.time > line.time
    )
    assert fresh[0].time - ending.time >= 0.999


def test_conflict_gives_the_next_number_and_another_pass_begins_with_the_first(
    lab, router, host, probing, announced
):
    host.send(SAME)
    (conflict,) = lab.capture.wait_for(lambda packet: packet.payload == SAME)
    first = lab.wait_for_transmissions(probe(LABEL_1))[0]
    assert first.time - conflict.time >= 0.249
    host.send(response(LABEL_1))
    lab.wait_for_transmissions(probe(LABEL_2))
    end_pass(lab, router, 1, LABEL_2)
    since = lab.capture.mark()
    host.send(response(LABEL_2))
    lab.wait_for_transmissions(probe(LABEL_1), since)
    end_pass(lab, router, 2, LABEL_1)
    router.end_probe()
    router.wait_for_banner()
    assert probing.device_name == f"{NAME}-1"
    assert probing.count(REPEAT) == 3
    # That name is answered, the first is not, and the records of a printer have it.
    lab.wait_for_packet(probe(LABEL_1), count=9)
    assert lab.ask(probe(LABEL_1)) == [
        hexbytes(
            f"{wire.RESPONSE_1} {LABEL_1} 05 'local' 00 0001 0001 {wire.TTL_120} {wire.ADDRESS}"
        )
    ]
    assert lab.ask(wire.HOST_QUESTION) == []
    router.plug_in(0)
    assert announced(f"{NAME}-1.local", "A") == "192.168.77.1"
    assert announced("_ipp._tcp.local", "SRV") == (631, f"{NAME}-1.local")
    assert f"note={NAME}-1" in announced("_ipp._tcp.local", "TXT")


def test_near_misses_are_no_conflict(router, host, probing):
    host.send(response("18 'T5140_00-11-22-AA-BB-CCX'"))
    host.send(response("17 't5140_00-11-22-AA-BB-CC'"))
    router.end_probe()
    router.wait_for_banner()
    assert probing.device_name == NAME
    assert REPEAT not in probing.texts()
