"""What every test in the lab starts from: a lab of its own, checked and cleaned at its end."""

import os
import pathlib
import re
import signal
import sys
import zlib

import pytest

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT))

import wire  # noqa: E402
from lab import Lab  # noqa: E402

FAILURES = pathlib.Path(os.environ.get("BONJOUR_LAB_FAILURES", ROOT / "build/lab-failures"))
CAPTURES = os.environ.get("BONJOUR_LAB_CAPTURES")

_failed = pytest.StashKey()


def pytest_configure(config):
    # As Ctrl-C: fixtures are torn down.
    signal.signal(signal.SIGTERM, signal.default_int_handler)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    report = (yield).get_result()
    if report.failed:
        item.stash[_failed] = True


def _file_name(request):
    name = f"{request.module.__name__}.{request.node.name}"
    # Names that differ in other characters alone stay apart, else two tests would write one file.
    slug = re.sub(r"[^\w.-]+", "_", name)
    return f"{slug}-{zlib.crc32(name.encode()):08x}"


def _finish(lab, request):
    """What holds for every test: the daemon ends cleanly, and what it sent is well-formed."""
    for router in lab.routers:
        if router.daemon is not None and router.daemon.running:
            router.stop()
    pcap = None
    if CAPTURES:
        pathlib.Path(CAPTURES).mkdir(parents=True, exist_ok=True)
        pcap = pathlib.Path(CAPTURES) / f"{_file_name(request)}.pcap"
    lab.check_packets(pcap)


@pytest.fixture
def lab(request):
    """A link with one router and one host; @pytest.mark.lab(...) says what is different."""
    mark = request.node.get_closest_marker("lab")
    with Lab(**(mark.kwargs if mark else {})) as made:
        finished = False
        try:
            yield made
            if not request.node.stash.get(_failed, False):
                _finish(made, request)
                finished = True
        finally:
            if not finished:
                made.keep(FAILURES / _file_name(request))
                print(f"packets and log are kept in {FAILURES / _file_name(request)}")
                print(made.timeline())


@pytest.fixture
def failed(request):
    """Tells whether the test has failed."""
    return lambda: request.node.stash.get(_failed, False)


@pytest.fixture
def failures(request):
    """Where what is kept of this test belongs."""
    return FAILURES / _file_name(request)


@pytest.fixture
def router(lab):
    return lab.router


@pytest.fixture
def host(lab):
    return lab.host


@pytest.fixture
def daemon(router):
    """The daemon, started without a model, up, its name settled."""
    return router.start()


@pytest.fixture
def daemon_with_printer(lab, router):
    """The daemon, up, with the printer HP Model 12 at port 0 published and all announced."""
    router.plug_in(0)
    started = router.start()
    for payload in (wire.PDL_PROBE, wire.PDL_RECORDS, wire.IPP_PROBE, wire.IPP_RECORDS):
        lab.wait_for_transmissions(payload)
    return started


@pytest.fixture
def announcement(lab):
    """Waits for the announcement of a service of a type, and gives its message."""

    def is_one(packet, service_type):
        answers = packet.message.answers
        # An answer about the host name has one record.
        return not packet.is_query and answers[1:] and answers[1].name == service_type

    return lambda service_type: lab.wait_for_packet(
        lambda packet: is_one(packet, service_type)
    )[0].message


@pytest.fixture
def announced_txt(announcement):
    """As announcement(), but gives its TXT strings."""
    return lambda service_type: announcement(service_type).answers[3].data
