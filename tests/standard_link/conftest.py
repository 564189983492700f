"""Labs for the standard responder: one for a whole file of questions, or one for a test alone."""

import re

import pytest
from lab.dual import FAMILIES, IPP, DualLab, program
from lab.printers import Printer

BUILD = program().parent


def _serve(lab, request):
    name = re.sub(r"[^\w.-]+", "_", f"{request.module.__name__}.{request.node.name}")
    failures = request.session.testsfailed
    try:
        yield lab
        if request.session.testsfailed == failures:
            lab.finish(request.config.option.captures, name)
            return
    finally:
        if request.session.testsfailed != failures:
            lab.keep(BUILD / "lab-failures" / name)
    print("packets and log are kept in", BUILD / "lab-failures" / name)


@pytest.fixture(scope="module")
def served(request):
    """A lab with the daemon up, the printer HP Model 12 at port 0, and all of it announced."""
    with DualLab() as lab:
        lab.router.plug_in(0)
        lab.start()
        lab.wait_for_announcements()
        yield from _serve(lab, request)


@pytest.fixture(scope="module")
def ten(request):
    """A lab whose router has published ten printers."""
    with DualLab() as lab:
        lab.router.plug_in_all(Printer(port) for port in range(10))
        lab.start()
        for port in range(10):
            for family in FAMILIES:
                lab.wait_for_record(IPP.replace(" 0.", f" {port}."), "SRV", family=family)
        yield from _serve(lab, request)


@pytest.fixture
def dual(request):
    """A lab of the test's own; nothing is started in it."""
    mark = request.node.get_closest_marker("dual")
    with DualLab(**(mark.kwargs if mark else {})) as lab:
        yield from _serve(lab, request)


@pytest.fixture(params=FAMILIES)
def family(request):
    return request.param
