"""Printers without a model line: the model comes from the printer's IEEE 1284 device id."""

import errno

import pytest

pytestmark = pytest.mark.release

PDL = "_pdl-datastream._tcp.local"
IPP = "_ipp._tcp.local"
FAILED = "[Bonjour] GetTXTData error"


@pytest.mark.parametrize(
    "device_id, model",
    [
        ("MFG:X;MODEL:Y;CMD:Z;", "Y"),
        ("MDL:N;XMODEL:N;MODEL:To the end", "To the end"),
    ],
)
def test_model_is_taken_from_the_device_id(router, device_id, model, announced_txt):
    router.connect_device(0, device_id)
    router.plug_in(0, "Acme", "", "PCL")
    router.start()
    for service_type in (PDL, IPP):
        strings = announced_txt(service_type)
        assert f"ty={model}" in strings
        assert f"product=(Acme {model})" in strings
        assert f"usb_MDL={model}" in strings


@pytest.mark.parametrize(
    "device_id",
    [
        "MFG:X;MDL:Y;CMD:Z;",
        f"MODEL:{'m' * 64};",
        "",
    ],
)
def test_device_id_without_a_usable_model_gives_no_service(lab, router, device_id):
    router.connect_device(0, device_id)
    router.plug_in(0, "Acme", "", "PCL")
    daemon = router.start()
    daemon.wait_for_line(FAILED, count=2)
    assert daemon.texts("stderr") == []
    assert [packet for packet in lab.sent() if not packet.is_query] == []


def test_name_of_a_printer_without_a_model_line_has_two_blanks(router, announcement):
    router.connect_device(0, "MODEL:Y;")
    router.plug_in(0, "Acme", "", "PCL")
    router.start()
    assert announcement(IPP).answers[1].data == f"Acme  (aa:bb:cc) 0.{IPP}"


def test_each_port_asks_its_own_device(router, announced_txt):
    router.connect_device(0, "MODEL:Of port 0;")
    router.connect_device(9, "MODEL:Of port 9;")
    router.plug_in(9, "Acme", "", "PCL")
    router.start()
    assert "ty=Of port 9" in announced_txt(IPP)


def test_model_line_is_preferred_to_the_device_id(router, announced_txt):
    router.connect_device(0, "MODEL:Not this;")
    router.plug_in(0, "Acme", "Jet", "PCL")
    router.start()
    assert "ty=Jet" in announced_txt(IPP)


def test_answer_that_fills_the_buffer_without_an_end_is_used_to_its_end(router, announced_txt):
    filler = "K:" + "v" * 498
    answer = b"\x02\x00" + f"{filler};MODEL:Y".encode()
    assert len(answer) == 510
    router.connect_device(0, answer=answer + b"zz")
    router.plug_in(0, "Acme", "", "PCL")
    router.start()
    assert "ty=Yzz" in announced_txt(IPP)


@pytest.mark.parametrize(
    "answer",
    [b"\xff" * 512, b"MODEL:" * 85],
    ids=["ones", "keys without an end"],
)
def test_garbage_for_an_answer_does_no_harm(router, answer, announced_txt):
    router.connect_device(0, answer=answer)
    router.plug_in(0, "Acme", "", "PCL")
    daemon = router.start()
    daemon.wait_for_line("[Bonjour] device insert lp0")
    router.plug_in(1, "Acme", "Jet", "PCL")
    daemon.wait_for_line("[Bonjour] device insert lp1")
    announced_txt(IPP)


def test_slow_printer_is_waited_for(router, announced_txt):
    router.connect_device(0, "MODEL:Slow;", delay=1.5)
    router.plug_in(0, "Acme", "", "PCL")
    router.start()
    assert "ty=Slow" in announced_txt(IPP)


@pytest.mark.parametrize(
    "device, message",
    [
        (None, "[Bonjour] no usb device: No such file or directory"),
        ({"open_error": errno.EBUSY}, "[Bonjour] no usb device: Device or resource busy"),
        ({"request_error": errno.EIO}, "[Bonjour] ioctl printer failed: Input/output error"),
    ],
    ids=["missing", "busy", "refusing"],
)
def test_printer_that_cannot_be_asked_is_reported_and_not_published(lab, router, device, message):
    if device is not None:
        router.connect_device(0, "MODEL:Y;", **device)
    router.plug_in(0, "Acme", "", "PCL")
    daemon = router.start()
    daemon.wait_for_line(FAILED, count=2)
    daemon.wait_for_line(message, count=2)
    assert daemon.texts("stderr") == [message, message]
    assert [packet for packet in lab.sent() if not packet.is_query] == []
