"""What fault tests start from: a board of faults, and a daemon under it."""

import pytest
import wire
from board import Board
from lab.usage import usage_once_senders_ended


@pytest.fixture
def board(tmp_path):
    """The faults of the test's daemon. Each must have been reached when the test ends."""
    made = Board(tmp_path / "board")
    yield made
    made.check()


@pytest.fixture
def start(router, board):
    """Starts the daemon under the board; as router.start()."""

    def run(*arguments, **how):
        return router.start(*arguments, environment=board.environment, **how)

    return run


@pytest.fixture
def daemon(start):
    return start()


@pytest.fixture
def printing(lab, router, daemon):
    """The daemon with a printer that is announced, its senders ended."""
    router.plug_in(0)
    lab.wait_for_transmissions(wire.IPP_RECORDS)
    lab.wait_for_transmissions(wire.PDL_RECORDS)
    usage_once_senders_ended(daemon.pid)
    return daemon
