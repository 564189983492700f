"""What fault tests start from: a board of faults, and a daemon under it."""

import pytest
import wire
from board import Board, descriptors
from lab.usage import usage_once_senders_ended
from lab.waiting import wait_until

# Of senders that have done with them, and of one that could not be started.
JOBS_KEPT = 4 + 1


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


class Holdings:
    """What the daemon held at a quiet moment, to be compared with later ones."""

    def __init__(self, board, daemon):
        wait_until(lambda: board.blocks > 0, "the monitor has its buffer")
        usage_once_senders_ended(daemon.pid)
        self._board = board
        self._daemon = daemon
        self._blocks = board.blocks
        # Without the files that the monitor has open for a moment, once a second.
        self._descriptors = [kind for kind in descriptors(daemon.pid) if not kind.startswith("/")]

    def check(self):
        """Waits until as much is held as before."""
        usage_once_senders_ended(self._daemon.pid)
        wait_until(lambda: self._board.blocks == self._blocks, f"{self._blocks} heap blocks")
        assert self._board.mappings <= JOBS_KEPT
        wait_until(
            lambda: descriptors(self._daemon.pid) == self._descriptors,
            f"the descriptors are {self._descriptors}",
        )


@pytest.fixture
def holdings(board, daemon):
    return Holdings(board, daemon)
