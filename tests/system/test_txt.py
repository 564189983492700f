"""The TXT strings of a printer's services. Those of an HP printer are in wire.py."""

import pytest
from lab.browser import IPP
from lab.browser import RAW as PDL
from responders import with_both

pytestmark = [pytest.mark.release, with_both]

NO_TEXT = "[Bonjour] GetTXTData error"
NOT_UNREGISTERED = "**********UnRegisterOneService error*************"


def test_keys_of_both_services_in_their_order(router, announced_txt):
    router.plug_in(4, "Acme", "Jet 5", "PCL,PostScript")
    router.start()
    before_rp = (
        "txtvers=1",
        "qtotal=1",
        "pdl=application/PCL,application/PostScript",
        "usb_CLS=PRINTER",
    )
    after_rp = (
        "ty=Jet 5",
        "product=(Acme Jet 5)",
        "usb_MFG=Acme",
        "usb_MDL=Jet 5",
        "note=T5140_00-11-22-AA-BB-CC",
        "usb_CMD=PCL,PostScript",
    )
    assert announced_txt(PDL) == (*before_rp, *after_rp, "priority=20")
    assert announced_txt(IPP) == (*before_rp, "rp=USB5_LQ", *after_rp, "priority=10")


def test_printer_whose_text_does_not_fit_is_tried_again_only_when_it_comes_back(
    lab, router, announced_txt
):
    router.plug_in(0, "Acme", "Jet", "C" * 600)
    daemon = router.start()
    daemon.wait_for_line(NO_TEXT, count=2)
    router.plug_in(0, "Acme", "Jet", "PCL")
    router.status_file.wait_until_read()
    router.pull_out(0)
    daemon.wait_for_line(NOT_UNREGISTERED, count=2)
    lines = [text for text in daemon.texts() if not text.startswith("[QX]")]
    assert lines[lines.index("[Bonjour] device insert lp0") :] == [
        "[Bonjour] device insert lp0",
        "buf is too small!!!",
        NO_TEXT,
        "buf is too small!!!",
        NO_TEXT,
        "[Bonjour] device remove lp0",
        "[Bonjour] this service: Acme Jet (aa:bb:cc) 0 _pdl-datastream._tcp .local"
        " is not registered",
        "[Bonjour] SERVICE_REMOVE error",
        NOT_UNREGISTERED,
        "[Bonjour] this service: Acme Jet (aa:bb:cc) 0 _ipp._tcp .local is not registered",
        "[Bonjour] SERVICE_REMOVE error",
        NOT_UNREGISTERED,
    ]
    assert lab.services() == set()
    router.plug_in(0, "Acme", "Jet", "PCL")
    assert "pdl=application/PCL" in announced_txt(IPP)
