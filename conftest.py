"""What every test in the lab starts from: a lab of its own, checked and cleaned at its end. And
which tests are run on which build, in which order."""

import os
import pathlib
import re
import signal
import sys
import zlib

import pytest

ROOT = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(ROOT / name) for name in ("", "tests", "tools")]

from lab import Lab  # noqa: E402
from lab.dual import DualLab  # noqa: E402
from responders import PATHS  # noqa: E402
from runner import inherited  # noqa: E402

# Seconds before a test is given up, on a machine that is many times too busy.
TIMEOUT = 600
TIMEOUT_FACTOR = 15
SECONDS = 3
SANITIZED = ("debug", "tsan")

LABS = {"classic": Lab, "standard": DualLab}


def pytest_addoption(parser):
    parser.addoption("--preset", default="release", help="the build whose daemon is tested")
    parser.addoption("--name", default="", help="only tests whose name matches this")
    parser.addoption("--captures", type=pathlib.Path, help="where what the daemons send is written")


def pytest_configure(config):
    inherited.settle()
    # As Ctrl-C: fixtures are torn down.
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    build = ROOT / "build" / config.getoption("preset")
    config.option.captures = config.getoption("captures") or build / "lab-captures"
    os.environ.setdefault("BONJOUR", str(build / "bonjour"))
    os.environ.setdefault("BONJOUR_USBLP_DEVICE", str(build / "lab/usblp_device"))
    # What tests start finds the lab.
    os.environ["PYTHONPATH"] = str(ROOT)


def _seconds(item):
    mark = item.get_closest_marker("seconds")
    return mark.args[0] if mark else SECONDS


def _is_for(item, preset):
    """Whether a test is run on the build of that preset. What a sanitizer sees needs each path
    once: of a table it gets the first row alone."""
    if preset == "coverage" and item.get_closest_marker("uncounted"):
        return False
    if preset in SANITIZED and hasattr(item, "callspec"):
        if any(item.callspec.indices.values()):
            return False
    return preset == "release" or not item.get_closest_marker("release")


def pytest_collection_modifyitems(config, items):
    preset, name = config.getoption("preset"), config.getoption("name")

    def is_meant(item):
        return _is_for(item, preset) and re.search(name, item.nodeid)

    items[:] = sorted(filter(is_meant, items), key=_seconds, reverse=True)
    if config.pluginmanager.hasplugin("timeout"):
        for item in items:
            item.add_marker(pytest.mark.timeout(max(TIMEOUT, TIMEOUT_FACTOR * _seconds(item))))


def _file_name(request):
    name = f"{request.module.__name__}.{request.node.name}"
    # Names that differ in other characters alone stay apart, else two tests would write one file.
    slug = re.sub(r"[^\w.-]+", "_", name)
    return f"{slug}-{zlib.crc32(name.encode()):08x}"


@pytest.fixture
def responder():
    """The responder of the lab's routers; responders.with_both gives a test each in turn."""
    return "classic"


@pytest.fixture
def lab(request, responder):
    """A link with one router and one host; @pytest.mark.lab(...) says what is different."""
    mark = request.node.get_closest_marker("lab")
    with LABS[responder](**(mark.kwargs if mark else {})) as made:
        failures = request.session.testsfailed
        finished = False
        try:
            yield made
            if request.session.testsfailed == failures:
                made.finish(request.config.option.captures, _file_name(request))
                finished = True
        finally:
            if not finished:
                build = ROOT / "build" / request.config.getoption("preset")
                kept = build / "lab-failures" / _file_name(request)
                made.keep(kept)
                print(f"packets and log are kept in {kept}")
                print(made.timeline())


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
def daemon_with_printer(lab, router, responder):
    """The daemon, up, with the printer HP Model 12 at port 0 published and all announced."""
    router.plug_in(0)
    started = router.start()
    PATHS[responder].wait_until_announced(lab)
    return started


@pytest.fixture
def announced(lab):
    """Waits until a response has a record of this type whose owner ends like that; its data."""

    def wait(owner, rrtype):
        def data(packet):
            records = () if packet.is_query else packet.message.answers
            named = (one for one in records if one.ttl and one.name.endswith(owner))
            return [one.data for one in named if one.type == rrtype]

        return data(lab.wait_for_packet(data)[0])[0]

    return wait


@pytest.fixture
def announced_txt(announced):
    """The TXT strings of the first announcement of a service of a type."""
    return lambda service_type: announced(service_type, "TXT")
