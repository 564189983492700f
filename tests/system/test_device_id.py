"""Printers without a model line: the model comes from the printer's IEEE 1284 device id."""

import errno

import pytest
from lab.printers import Printer

pytestmark = pytest.mark.release


def test_model_is_asked_of_each_ports_own_device_and_the_name_lacks_it(lab, router):
    """A model line is preferred, and a device that is slow is waited for."""
    router.connect_device(0, "MFG:X;MODEL:Slow one;CMD:Z;", delay=1.5)
    router.connect_device(1, "MODEL:Not this;")
    router.connect_device(9, "MDL:N;XMODEL:N;MODEL:To the end")
    router.plug_in_all(
        [
            Printer(0, "Acme", "", "PCL"),
            Printer(1, "Acme", "Jet", "PCL"),
            Printer(9, "Acme", "", "PCL"),
        ]
    )
    router.start()
    announced = lab.wait_for_packet(
        lambda packet: not packet.is_query and len(packet.message.answers) > 3, count=18
    )
    models = {
        packet.message.answers[1].data.partition("._")[0]: {
            text for text in packet.message.answers[3].data if text.startswith(("ty=", "product="))
        }
        for packet in announced
    }
    assert models == {
        "Acme  (aa:bb:cc) 0": {"ty=Slow one", "product=(Acme Slow one)"},
        "Acme Jet (aa:bb:cc) 1": {"ty=Jet", "product=(Acme Jet)"},
        "Acme  (aa:bb:cc) 9": {"ty=To the end", "product=(Acme To the end)"},
    }


@pytest.mark.parametrize(
    "device, message",
    [
        (None, "[Bonjour] no usb device: No such file or directory"),
        ({"open_error": errno.EBUSY}, "[Bonjour] no usb device: Device or resource busy"),
        ({"request_error": errno.EIO}, "[Bonjour] ioctl printer failed: Input/output error"),
        ({"device_id": "MFG:X;MDL:Y;CMD:Z;"}, None),
    ],
    ids=["missing", "busy", "refusing", "without a model"],
)
def test_printer_whose_model_cannot_be_had_is_not_published(lab, router, device, message):
    if device is not None:
        router.connect_device(0, **device)
    router.plug_in(0, "Acme", "", "PCL")
    daemon = router.start()
    daemon.wait_for_line("[Bonjour] GetTXTData error", count=2)
    assert daemon.texts("stderr") == ([message, message] if message else [])
    assert [packet for packet in lab.sent() if not packet.is_query] == []
