"""The TXT strings of a printer's services, and the model that comes from its IEEE 1284 device id.
Those of an HP printer are in wire.py."""

import errno

import pytest
from lab.browser import IPP
from lab.browser import RAW as PDL
from responders import with_both

pytestmark = [pytest.mark.release, with_both]

BUSY = "[Bonjour] no usb device: Device or resource busy"
REFUSED = "[Bonjour] ioctl printer failed: Input/output error"
TOO_LONG = "buf is too small!!!"
NO_TEXT = "[Bonjour] GetTXTData error"
NOT_UNREGISTERED = "**********UnRegisterOneService error*************"


def test_keys_of_both_services_with_the_model_of_a_slow_device_which_the_name_lacks(
    router, announced_txt
):
    router.connect_device(0, "MODEL:Not this;")
    router.connect_device(4, "MFG:X;MDL:N;MODEL:Jet 5;CMD:Z;", delay=1.5)
    router.plug_in(4, "Acme", "", "PCL,PostScript")
    router.start()
    ipp = (
        "txtvers=1",
        "qtotal=1",
        "pdl=application/PCL,application/PostScript",
        "usb_CLS=PRINTER",
        "rp=USB5_LQ",
        "ty=Jet 5",
        "product=(Acme Jet 5)",
        "usb_MFG=Acme",
        "usb_MDL=Jet 5",
        "note=T5140_00-11-22-AA-BB-CC",
        "usb_CMD=PCL,PostScript",
        "priority=10",
    )
    name = "Acme  (aa:bb:cc) 4"
    assert announced_txt(f"{name}.{IPP}") == ipp
    assert announced_txt(f"{name}.{PDL}") == (*ipp[:4], *ipp[5:-1], "priority=20")


@pytest.mark.parametrize(
    "device, model, commands, message",
    [
        ({"open_error": errno.EBUSY}, "", "PCL", BUSY),
        ({"request_error": errno.EIO}, "", "PCL", REFUSED),
        ({}, "Jet", "C" * 600, TOO_LONG),
    ],
    ids=["a busy device", "a device that refuses", "a text that does not fit"],
)
def test_printer_without_a_text_is_not_published_and_tried_again_only_when_it_comes_back(
    lab, router, announced_txt, device, model, commands, message
):
    router.connect_device(0, **device)
    router.plug_in(0, "Acme", model, commands)
    daemon = router.start()
    daemon.wait_for_line(NO_TEXT, count=2)
    daemon.wait_for_line(message, count=2)
    router.plug_in(0, "Acme", model, "PCL")
    router.status_file.wait_until_read()
    router.pull_out(0)
    daemon.wait_for_line(NOT_UNREGISTERED, count=2)
    assert daemon.count(message) == 2
    assert lab.services() == set()
    router.plug_in(0, "Acme", "Jet", "PCL")
    assert "pdl=application/PCL" in announced_txt(IPP)
