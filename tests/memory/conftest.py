"""What these tests start from: each is run with each of the tools."""

import pytest
from tools import MemorySanitizer, Valgrind


@pytest.fixture(params=[MemorySanitizer, Valgrind], ids=lambda tool: tool.__name__)
def tool(request, tmp_path):
    if request.param is Valgrind:
        return Valgrind(tmp_path / "report")
    return MemorySanitizer()
