"""The daemon under test: its process, and each line it prints with the time it was seen."""

import dataclasses
import os
import pathlib
import re
import signal
import subprocess
import threading
import time

from lab.waiting import PATIENCE, Journal, TimedOut

_SANITIZER_REPORT = re.compile(
    r"(Address|Leak|Thread|Memory|UndefinedBehavior)Sanitizer|runtime error:"
)
_POLL = 0.01
_NAME_LINE = re.compile(r"\[Bonjour\] default device name = .*")


def binary():
    """The daemon: what the environment variable BONJOUR names, else the release build's."""
    root = pathlib.Path(__file__).resolve().parent.parent
    return pathlib.Path(os.environ.get("BONJOUR", root / "build/release/bonjour")).resolve()


@dataclasses.dataclass(frozen=True)
class Line:
    """A line of output without its line feed. `time` is wall-clock time in seconds."""

    time: float
    stream: str
    text: str


class Daemon:
    def __init__(self, sandbox, network, arguments=(), environment=None, wrapper=()):
        """Starts the daemon in `sandbox` and `network`.

        `environment` is added to ours for it alone. `wrapper` is put before its command line; it
        must become the daemon in the same process (as env, prlimit or `strace -D` do), because
        that process is what signals go to.
        """
        self.lines = Journal()
        self._process = sandbox.spawn(
            [*wrapper, binary(), *arguments],
            network=network,
            environment=environment,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
        )
        self.pid = self._process.pid
        self._readers = []
        for stream in ("stdout", "stderr"):
            reader = threading.Thread(target=self._read, args=(stream,), daemon=True)
            reader.start()
            self._readers.append(reader)
        self._waiter = threading.Thread(target=self._end_journal, daemon=True)
        self._waiter.start()

    def _read(self, stream):
        with getattr(self._process, stream) as pipe:
            for line in pipe:
                text = line.decode(errors="backslashreplace").rstrip("\n")
                self.lines.append(Line(time.time(), stream, text))

    def _end_journal(self):
        for reader in self._readers:
            reader.join()
        self.lines.close()

    # Lines

    def mark(self):
        """The position behind the lines seen so far."""
        return len(self.lines)

    def texts(self, stream=None, since=0):
        """The lines so far as text, of one stream or of both."""
        return [
            line.text for line in self.lines.items(since) if stream in (None, line.stream)
        ]

    def count(self, text, since=0):
        return self.texts(since=since).count(text)

    def wait_for_line(self, text, count=1, since=0, bound=10.0):
        """The `count`th line from `since` on that is `text`, or that the compiled pattern `text`
        matches whole; raises TimedOut."""
        if isinstance(text, re.Pattern):
            return self.lines.wait(
                lambda line: text.fullmatch(line.text), count, since, bound, f"line {text.pattern}"
            )[-1]
        return self.lines.wait(
            lambda line: line.text == text, count, since, bound, f"line {text!r}"
        )[-1]

    @property
    def device_name(self):
        """The host name that it settled on at start, without ".local"."""
        return self.wait_for_line(_NAME_LINE).text.rpartition(" = ")[2]

    # Process

    def signal(self, number):
        os.kill(self.pid, number)

    def threads(self):
        """How many threads it has now."""
        return len(os.listdir(f"/proc/{self.pid}/task"))

    def wait_until(self, holds, what, bound=10.0):
        """Waits for a state of the process that no event tells of; raises TimedOut."""
        deadline = time.monotonic() + bound * PATIENCE
        while not holds():
            if time.monotonic() > deadline:
                raise TimedOut(f"{bound * PATIENCE} s passed without: {what}")
            time.sleep(_POLL)

    @property
    def running(self):
        return self._process.poll() is None

    def wait_for_exit(self, bound=15.0, nudge=None):
        """The exit status (negative for a signal) once it has ended and all its lines are in.

        `nudge`, if given, is called over and over until then.
        """
        deadline = time.monotonic() + bound * PATIENCE
        while True:
            if nudge is not None:
                nudge()
            try:
                left = max(0.0, deadline - time.monotonic())
                self._process.wait(min(left, 0.1) if nudge else left)
                break
            except subprocess.TimeoutExpired:
                if time.monotonic() >= deadline:
                    raise TimedOut(f"the daemon still runs after {bound * PATIENCE} s") from None
        self._waiter.join()
        return self._process.returncode

    def check_clean(self):
        """Raises if the ended daemon's status is not 0 or a sanitizer reported something."""
        status = self._process.returncode
        stderr = "\n".join(self.texts("stderr"))
        if _SANITIZER_REPORT.search(stderr):
            raise AssertionError(f"a sanitizer reports, exit status {status}:\n{stderr}")
        if status != 0:
            raise AssertionError(f"the daemon ended with status {status}:\n{stderr}")

    def kill(self):
        """Ends it by force, if it still runs, and waits for it."""
        if self.running:
            self.signal(signal.SIGKILL)
        self._process.wait()
        self._waiter.join()
