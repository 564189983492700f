"""What tests of the installed files start from, when no network is needed."""

import pytest
from lab.sandbox import Sandbox


@pytest.fixture
def sandbox():
    made = Sandbox()
    yield made
    made.close()
