import pytest
from stock_system import StockSystem


@pytest.fixture(params=["busybox", "debian"])
def system(request, tmp_path):
    return StockSystem(tmp_path / "root", request.param)


@pytest.fixture
def debian(tmp_path):
    return StockSystem(tmp_path / "root", "debian")
