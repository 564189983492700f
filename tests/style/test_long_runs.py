"""What the runs by option name is still there: ./test itself does not try them."""

import pathlib
import re

import pytest

pytestmark = pytest.mark.release

TESTS = pathlib.Path(__file__).resolve().parent.parent
LEFT_OUT = [
    line
    for line in (TESTS / "not-under-qemu").read_text().splitlines()
    if line and not line.startswith("#")
]


@pytest.mark.parametrize("pattern", LEFT_OUT)
def test_test_that_is_left_out_under_qemu_exists(pattern):
    module, suite, name = re.fullmatch(
        r"(\w+/\w+):(?:\w+/)?(\w+)\\\.(\w+|\.\*)(?:/.*)?", pattern
    ).groups()
    source = (TESTS / f"{module}_test.cpp").read_text()
    assert re.search(rf"TEST\w*\({suite},\s+{'' if name == '.*' else name}\b", source)
