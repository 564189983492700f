"""The server that forks the tests' processes: a run is as one of pytest itself."""

import signal
import sys
import time
import uuid

import pytest
from conftest import BOUND, ROOT

pytestmark = pytest.mark.release

RUN = [sys.executable, "-ES", ROOT / "tests/pytest_client.py", "-q", "-p", "no:cacheprovider"]
TESTS = """
import os, pathlib, signal, time

def test_surroundings():
    print(os.environ["COLOUR"], pathlib.Path.cwd().name, "BONJOUR_PYTEST_SERVER" in os.environ)
    assert False

def test_nothing():
    pass

def test_death():
    os.kill(os.getpid(), signal.SIGKILL)

def test_long():
    pathlib.Path("began").touch()
    time.sleep(600)
"""


@pytest.fixture
def served(start):
    """The environment of clients of a server."""
    name = f"bonjour-{uuid.uuid4()}"
    server = start(sys.executable, "-B", ROOT / "tests/pytest_server.py", name)
    assert server.process.stdout.readline() == "listening\n"
    return {"BONJOUR_PYTEST_SERVER": name, "COLOUR": "green"}


@pytest.fixture
def tests(tmp_path):
    (tmp_path / "test_some.py").write_text(TESTS)
    return tmp_path


def test_run_has_its_own_surroundings(run, served, tests):
    status, output, _ = run(*RUN, "test_some.py::test_surroundings", cwd=tests, environment=served)
    assert status == 1
    assert f"green {tests.name} False\n" in output
    assert "1 failed" in output


def test_run_without_a_server_is_one_of_pytest(run, tests):
    words = [*RUN, "test_some.py::test_surroundings"]
    status, output, _ = run(*words, cwd=tests, environment={"COLOUR": "red"})
    assert status == 1
    assert f"red {tests.name} False\n" in output


def test_each_run_has_its_status(run, served, tests):
    def status(name):
        return run(*RUN, f"test_some.py::{name}", cwd=tests, environment=served)[0]

    assert status("test_nothing") == 0
    assert status("test_that_is_not_there") == 4
    assert status("test_death") == 128 + signal.SIGKILL
    assert status("test_nothing") == 0


def test_client_that_is_ended_ends_its_run(start, served, tests):
    client = start(*RUN, "test_some.py::test_long", cwd=tests, environment=served)
    deadline = time.monotonic() + BOUND
    while not (tests / "began").exists():
        assert time.monotonic() < deadline
        time.sleep(0.02)
    client.process.kill()
    # The run has the client's output open: it ends with the run.
    client.process.communicate(timeout=BOUND)
