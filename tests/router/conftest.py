"""A machine of each kind is booted once, and goes through the tests of a file in their order."""

import pytest

from lab.printers import Printer
from lab.vm.kinds import KINDS
from lab.vm.router import MachineLab


def pytest_addoption(parser):
    parser.addoption("--kind", action="append", help="only machines of this kind")


def pytest_generate_tests(metafunc):
    if "lab" in metafunc.fixturenames:
        metafunc.parametrize("lab", list(KINDS), indirect=True, scope="session")


def pytest_collection_modifyitems(config, items):
    wanted = config.getoption("kind") or list(KINDS)

    def is_run(item):
        mark = item.get_closest_marker("kinds")
        kind = item.callspec.params["lab"] if "lab" in item.fixturenames else "x86-64"
        return kind in wanted and (not mark or kind in mark.args)

    items[:] = filter(is_run, items)


@pytest.fixture(scope="session")
def lab(request):
    """The machine with the printer HP Model 12 plugged in from the beginning, and the package
    installed."""
    with MachineLab(request.param) as made:
        made.router.start([Printer(0)])
        yield made


@pytest.fixture
def machine(lab):
    return lab.router.machine
