"""A command under test, with everything that it starts."""

import contextlib
import os
import pathlib
import signal
import subprocess
import uuid

from lab.waiting import PATIENCE, wait_until
from runner.processes import marked

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
BOUND = 30 * PATIENCE


class Command:
    def __init__(self, words, environment=(), **options):
        # Inherited by all that it starts, in whatever session or namespace.
        name, value = "BONJOUR_TEST_MARK", str(uuid.uuid4())
        self._mark = f"{name}={value}"
        self.process = subprocess.Popen(
            [str(word) for word in words],
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            env={**os.environ, **dict(environment), name: value},
            text=True,
            **{"stdin": subprocess.DEVNULL, "cwd": ROOT, **options},
        )

    def finish(self):
        """Its exit status, output and error output."""
        output, errors = self.process.communicate(timeout=BOUND)
        return self.process.returncode, output, errors

    def left(self):
        """The processes that it started and that are still there."""
        return marked(self._mark)

    def wait_until_nothing_is_left(self):
        wait_until(lambda: not self.left(), "nothing is left", 30)

    def close(self):
        for pid in self.left():
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        with self.process:
            pass
