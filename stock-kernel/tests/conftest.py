import pytest
from lab.daemon import stock_build
from stock_system import StockSystem


@pytest.fixture(params=["busybox", "debian"])
def system(request, tmp_path):
    return StockSystem(tmp_path / "root", stock_build(), request.param)


@pytest.fixture
def busybox(tmp_path):
    return StockSystem(tmp_path / "root", stock_build(), "busybox")


@pytest.fixture
def debian(tmp_path):
    return StockSystem(tmp_path / "root", stock_build(), "debian")
