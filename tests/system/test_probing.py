"""Probing of the host name when another router on the link has it."""

import wire
from lab.packets import HARMLESS, hexbytes

NAME = "T5140_00-11-22-AA-BB-CC"
HOST_1 = "19 'T5140_00-11-22-AA-BB-CC-1' 05 'local' 00"
PROBE_1 = hexbytes(f"{wire.QUERY_1} {HOST_1} 0001 0001")
ANSWER_1 = hexbytes(f"{wire.RESPONSE_1} {HOST_1} 0001 0001 {wire.TTL_120} 0004 C0A84D02")
REPEAT = "[Bonjour] MDNS_CheckName: device name repeat"
LIMIT = "[Bonjour] MDNS_CheckName: ignorePackets limits."


def test_second_router_takes_the_next_number_probes_again_and_each_answers_for_its_own_name(
    lab, router, daemon, host, announced
):
    second = lab.add_router(mac=router.mac)
    since = lab.capture.mark()
    second_daemon = second.start(ready=False)
    conflict = lab.wait_for_packet(wire.HOST_ANSWER, since)[0]
    first_probes = lab.wait_for_transmissions(PROBE_1)
    assert first_probes[0].time - conflict.time >= 0.249
    # Another pass, a second after that with the conflict.
    second.end_probe()
    second_daemon.wait_for_line(LIMIT)
    # One of these has ended the pass.
    ending = lab.capture.seen(lambda packet: packet.payload == HARMLESS)[0]
    assert lab.wait_for_packet(PROBE_1, count=6)[3].time - ending.time >= 0.999
    second.end_probe()
    second.wait_for_banner()
    assert second_daemon.count(REPEAT) == 1
    assert second_daemon.device_name == f"{NAME}-1"
    assert daemon.device_name == NAME
    assert lab.ask(wire.HOST_QUESTION) == [wire.HOST_ANSWER]
    host.send(PROBE_1)
    for packet in lab.wait_for_transmissions(ANSWER_1):
        assert packet.source == "192.168.77.2"
    second.plug_in(0)
    assert announced("_ipp._tcp.local", "SRV") == (631, f"{NAME}-1.local")
    assert f"note={NAME}-1" in announced("_ipp._tcp.local", "TXT")
