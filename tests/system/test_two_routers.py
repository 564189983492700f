"""Two routers on one link."""

import pytest
import wire
from lab.packets import hexbytes

pytestmark = pytest.mark.release

NAME = "T5140_00-11-22-AA-BB-CC"
REPEAT = "[Bonjour] MDNS_CheckName: device name repeat"
HOST_1 = "19 'T5140_00-11-22-AA-BB-CC-1' 05 'local' 00"
PROBE_1 = hexbytes(f"{wire.QUERY_1} {HOST_1} 0001 0001")
ANSWER_1 = hexbytes(f"{wire.RESPONSE_1} {HOST_1} 0001 0001 00000078 0004 C0A84D02")


@pytest.fixture
def second_router(lab):
    """A second router with the same hardware address, and so with the same name at first."""
    return lab.add_router(mac=lab.router.mac, address="192.168.77.2/24")


@pytest.mark.seconds(15)
def test_second_router_of_the_same_name_takes_a_suffix(lab, router, second_router):
    first_daemon = router.start()
    second_daemon = second_router.start(fast=False)
    assert second_daemon.device_name == f"{NAME}-1"
    assert first_daemon.device_name == NAME
    assert second_daemon.count(REPEAT) == 1


@pytest.mark.seconds(15)
def test_each_router_answers_for_its_own_name(lab, router, host, second_router):
    router.start()
    second_router.start(fast=False)
    assert lab.ask(wire.HOST_QUESTION) == [wire.HOST_ANSWER]
    since = lab.capture.mark()
    host.send(PROBE_1)
    for packet in lab.wait_for_transmissions(ANSWER_1, since):
        assert packet.source == "192.168.77.2"


def test_routers_of_different_names_leave_each_other_alone(lab, router):
    other = lab.add_router(mac="00:11:22:aa:bb:cd", address="192.168.77.2/24")
    assert router.start().device_name == NAME
    assert other.start().device_name == "T5140_00-11-22-AA-BB-CD"


def test_each_router_has_its_own_printers(lab, router):
    other = lab.add_router(mac="00:11:22:aa:bb:cd", address="192.168.77.2/24")
    router.plug_in(0)
    other.plug_in(0)
    router.start()
    other.start()
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
