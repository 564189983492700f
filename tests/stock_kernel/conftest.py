import pytest
from lab.daemon import binary
from stock_system import StockSystem


@pytest.fixture(params=["busybox", "debian"])
def system(request, tmp_path):
    return StockSystem(tmp_path / "root", binary().parent, request.param)


@pytest.fixture
def busybox(tmp_path):
    return StockSystem(tmp_path / "root", binary().parent, "busybox")


@pytest.fixture
def debian(tmp_path):
    return StockSystem(tmp_path / "root", binary().parent, "debian")
