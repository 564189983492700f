"""Two routers on one link."""

import pytest
import wire
from lab.packets import hexbytes

pytestmark = pytest.mark.release

NAME = "T5140_00-11-22-AA-BB-CC"
HOST_1 = "19 'T5140_00-11-22-AA-BB-CC-1' 05 'local' 00"
PROBE_1 = hexbytes(f"{wire.QUERY_1} {HOST_1} 0001 0001")
LIMIT = "[Bonjour] MDNS_CheckName: ignorePackets limits."


def test_second_router_of_the_same_name_takes_a_suffix_and_each_answers_for_its_own(
    lab, router, host
):
    second_router = lab.add_router(mac=router.mac, address="192.168.77.2/24")
    first_daemon = router.start()
    second_daemon = second_router.start(ready=False)
    for count in (1, 2):
        # The pass with the conflict, and the one after it.
        lab.wait_for_packet(PROBE_1, count=3 * count)
        second_router.end_probe()
        second_daemon.wait_for_line(LIMIT, count=count)
    second_router.wait_for_banner()
    assert second_daemon.device_name == f"{NAME}-1"
    assert first_daemon.device_name == NAME
    assert lab.ask(wire.HOST_QUESTION) == [wire.HOST_ANSWER]
    since = lab.capture.mark()
    host.send(PROBE_1)
    answer = hexbytes(f"{wire.RESPONSE_1} {HOST_1} 0001 0001 {wire.TTL_120} 0004 C0A84D02")
    for packet in lab.wait_for_transmissions(answer, since):
        assert packet.source == "192.168.77.2"


def test_routers_of_different_names_leave_each_other_and_their_printers_alone(lab, router):
    other = lab.add_router(mac="00:11:22:aa:bb:cd", address="192.168.77.2/24")
    router.plug_in(0)
    other.plug_in(0)
    assert router.start().device_name == NAME
    assert other.start().device_name == "T5140_00-11-22-AA-BB-CD"
    for source, instance, target in (
        ("192.168.77.1", "HP Model 12 (aa:bb:cc) 0", "T5140_00-11-22-AA-BB-CC.local"),
        ("192.168.77.2", "HP Model 12 (aa:bb:cd) 0", "T5140_00-11-22-AA-BB-CD.local"),
    ):
        packet = lab.wait_for_packet(
            lambda packet: packet.source == source
            and not packet.is_query
            and len(packet.message.answers) == 5
        )[0]
        assert packet.message.answers[1].data == f"{instance}._ipp._tcp.local"
        assert packet.message.answers[2].data == (631, target)
