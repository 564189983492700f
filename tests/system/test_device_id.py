"""Printers without a model line: the model comes from the printer's IEEE 1284 device id."""

import errno

import pytest
from lab.browser import IPP
from lab.printers import Printer
from responders import with_both

pytestmark = [pytest.mark.release, with_both]


def test_model_is_asked_of_each_ports_own_device_and_the_name_lacks_it(router, announced):
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
    for name, model in (
        ("Acme  (aa:bb:cc) 0", "Slow one"),
        ("Acme Jet (aa:bb:cc) 1", "Jet"),
        ("Acme  (aa:bb:cc) 9", "To the end"),
    ):
        text = announced(f"{name}.{IPP}", "TXT")
        assert {f"ty={model}", f"product=(Acme {model})"} < set(text)


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
    assert lab.services() == set()
