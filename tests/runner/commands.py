"""A command under test, with everything that it starts."""

import os
import pathlib
import signal
import subprocess
import time
import uuid

from lab.waiting import PATIENCE

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
BOUND = 30 * PATIENCE


class Command:
    """One run of a command, and everything that it starts."""

    def __init__(self, words, **options):
        # Inherited by all that it starts, in whatever session or namespace.
        self._mark = f"BONJOUR_TEST_MARK={uuid.uuid4()}"
        name, value = self._mark.split("=")
        environment = {**os.environ, **options.pop("environment", {}), name: value}
        pipes = {name: subprocess.PIPE for name in ("stdout", "stderr")}
        self.process = subprocess.Popen(
            [str(word) for word in words],
            **{**pipes, "env": environment, "stdin": subprocess.DEVNULL, "cwd": ROOT, **options},
            text=True,
        )

    def finish(self):
        """Its exit status, output and error output."""
        output, errors = self.process.communicate(timeout=BOUND)
        return self.process.returncode, output, errors

    def _left(self):
        """The processes that it started and that are still there."""
        found = []
        for directory in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                environment = (directory / "environ").read_bytes().split(b"\0")
                zombie = "\nState:\tZ" in (directory / "status").read_text()
            except OSError:
                continue
            if self._mark.encode() in environment and not zombie:
                found.append(int(directory.name))
        return found

    def wait_until_nothing_is_left(self):
        deadline = time.monotonic() + BOUND
        while self._left():
            assert time.monotonic() < deadline, self._left()
            time.sleep(0.02)

    def close(self):
        for pid in self._left():
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        self.process.wait()
        for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
            if stream:
                stream.close()
