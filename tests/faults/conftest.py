"""What fault tests start from: a board of faults, and a daemon under it."""

import pytest
from board import Board, descriptors, wait_for_descriptors
from lab.usage import usage_once_senders_ended

# Of senders that have done with them, and of one that could not be started.
JOBS_KEPT = 4 + 1


@pytest.fixture
def board(tmp_path):
    """The faults of the test's daemon. Each must have been reached when the test ends."""
    made = Board(tmp_path / "board")
    try:
        yield made
        made.check()
    finally:
        made.close()


@pytest.fixture
def start(router, board):
    """Starts the daemon under the board; as router.start()."""

    def run(*arguments, **how):
        return router.start(*arguments, environment=board.environment, **how)

    return run


class Holdings:
    """What the daemon held at a quiet moment, to be compared with later ones."""

    def __init__(self, board, daemon):
        board.wait_until_the_monitor_runs()
        usage_once_senders_ended(daemon.pid)
        self._board = board
        self._daemon = daemon
        self._blocks = board.blocks
        # Without the files that the monitor has open for a moment, once a second.
        self._descriptors = [kind for kind in descriptors(daemon.pid) if not kind.startswith("/")]

    def check(self, more_blocks=0):
        """Waits until as much is held as before, and so many heap blocks more."""
        usage_once_senders_ended(self._daemon.pid)
        self._board.wait_for_blocks(self._blocks + more_blocks)
        assert self._board.mappings <= JOBS_KEPT
        wait_for_descriptors(self._daemon.pid, self._descriptors)


@pytest.fixture
def holdings(board):
    return lambda daemon: Holdings(board, daemon)
