"""No byte that was not written on purpose decides anything or leaves, in a packet or in a line."""

import main_path
from lab import packets
from lab.lab import TRANSMISSIONS

DEVICE_ID = "MFG:HP;MODEL:Model 56;CMD:PCL;"
INSTANCE = "HP  (aa:bb:cc) 1._pdl-datastream._tcp.local"


def test_main_path_uses_no_byte_that_was_never_written(lab, router, tool, monkeypatch):
    monkeypatch.setenv("BONJOUR", str(tool.built))
    sent, lines = main_path.walk(lab, tool.wrapper)
    assert not tool.findings(router.daemon)
    assert sent == main_path.PACKETS
    assert lines == main_path.LINES


def test_model_from_a_device_id_uses_no_byte_that_was_never_written(
    lab, router, tool, monkeypatch
):
    monkeypatch.setenv("BONJOUR", str(tool.built))
    daemon = router.start(wrapper=tool.wrapper)
    router.connect_device(1, DEVICE_ID)
    router.plug_in(1, model="")
    lab.wait_for_packet(lambda packet: b"ty=Model 56" in packet.payload, count=2 * TRANSMISSIONS)
    (answer,) = lab.ask(packets.query((INSTANCE, "SRV")))
    assert packets.parse(answer).answers[2].data == (9101, "T5140_00-11-22-AA-BB-CC.local")
    router.stop()
    assert not tool.findings(daemon)


def test_name_that_is_taken_uses_no_byte_that_was_never_written(lab, router, tool, monkeypatch):
    monkeypatch.setenv("BONJOUR", str(tool.built))
    daemon = router.start(ready=False, wrapper=tool.wrapper)
    name = "T5140_00-11-22-AA-BB-CC"
    lab.wait_for_packet(packets.query((f"{name}.local", "A")))
    lab.host.send(packets.query((f"{name}.local", "A")))
    lab.wait_for_packet(packets.query((f"{name}-1.local", "A")))
    router.end_probe()
    lab.wait_for_packet(packets.query((f"{name}-1.local", "A")), count=2 * TRANSMISSIONS)
    router.end_probe()
    router.wait_for_banner()
    assert daemon.device_name == f"{name}-1"
    router.stop()
    assert not tool.findings(daemon)
