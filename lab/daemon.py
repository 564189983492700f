"""The daemon under test: its process, and each line it prints with the time it was seen."""

import contextlib
import dataclasses
import fcntl
import functools
import os
import pathlib
import re
import select
import signal
import subprocess
import threading
import time

from lab.waiting import PATIENCE, Journal, TimedOut, wait_until

_SANITIZER_REPORT = re.compile(
    r"(Address|Leak|Thread|Memory|UndefinedBehavior)Sanitizer|runtime error:"
)
# The daemon drops a line that finds no space in its pipe. This holds more than a busy lab leaves
# unread.
_PIPE_CAPACITY = 1 << 20
_PAGE = 4096
_NAME_LINE = re.compile(r"\[Bonjour\] default device name = .*")
BANNER_START = "[QX] "


def binary():
    """The daemon's path: what the environment variable BONJOUR names, else the release build's."""
    root = pathlib.Path(__file__).resolve().parent.parent
    return pathlib.Path(os.environ.get("BONJOUR", root / "build/release/bonjour")).resolve()


def stock_build(responder="classic"):
    """Where the build for a stock kernel with this responder is, below the daemon's own."""
    return binary().parent / "stock" / responder


def has_sanitizer():
    """Whether the daemon is built with a sanitizer, whose runtime needs memory and files."""
    code = binary().read_bytes()
    return any(name in code for name in (b"__asan_init", b"__tsan_init", b"__msan_init"))


@dataclasses.dataclass(frozen=True)
class Line:
    """A line of output without its line feed. `time` is wall-clock time in seconds."""

    time: float
    stream: str
    text: str


class _Stream:
    """One of a process's outputs, taken without waiting for more."""

    def __init__(self, name, pipe):
        self.name = name
        self.pipe = pipe
        self._begun = b""
        os.set_blocking(pipe.fileno(), False)
        self.resize(_PIPE_CAPACITY)

    def resize(self, capacity):
        fcntl.fcntl(self.pipe, fcntl.F_SETPIPE_SZ, capacity)

    def take(self):
        """The lines that came since the last time, or None once the output has ended."""
        try:
            taken = os.read(self.pipe.fileno(), _PIPE_CAPACITY)
        except BlockingIOError:
            return []
        if taken:
            *lines, self._begun = (self._begun + taken).split(b"\n")
        elif self._begun:
            lines, self._begun = [self._begun], b""
        else:
            return None
        return [line.decode(errors="backslashreplace") for line in lines]


class Lines:
    """What a daemon prints, line by line."""

    def __init__(self):
        self.lines = Journal()

    def _take_lines(self):
        """Takes what has been printed by now."""

    def mark(self):
        """The position after the lines so far."""
        self._take_lines()
        return len(self.lines)

    def texts(self, stream=None, since=0):
        """The lines so far as text, of one stream or of both."""
        self._take_lines()
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

    @functools.cached_property
    def device_name(self):
        """The host name that it settled on at start, without ".local"."""
        return self.wait_for_line(_NAME_LINE).text.rpartition(" = ")[2]


class Daemon(Lines):
    def __init__(
        self, sandbox, network, arguments=(), environment=None, wrapper=(), program=None
    ):
        """Starts the daemon in `sandbox` and `network`: `program`, or else binary().

        `environment` is added to ours for it alone. `wrapper` is put before its command line; it
        must become the daemon in the same process (as env, prlimit or `strace -D` do), because
        that process is what signals go to.
        """
        super().__init__()
        self._process = sandbox.spawn(
            [*wrapper, program or binary(), *arguments],
            network=network,
            environment=environment,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
        )
        self.pid = self._process.pid
        self._streams = [
            _Stream("stdout", self._process.stdout),
            _Stream("stderr", self._process.stderr),
        ]
        self._taking = threading.Lock()
        self._is_up = False
        self._is_read = threading.Event()
        self._is_read.set()
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        poll = select.poll()
        for stream in self._streams:
            poll.register(stream.pipe, select.POLLIN)
        while self._streams:
            self._is_read.wait()
            poll.poll()
            for stream in self._take_lines():
                poll.unregister(stream.pipe)
                with self._taking:
                    self._streams.remove(stream)
                    stream.pipe.close()
        self.lines.close()

    def _take_lines(self):
        """Takes what has been printed by now: a caller who knows of a line by other means finds it
        after this. Returns the streams that have ended."""
        with self._taking:
            return self._take_from_pipes() if self._is_read.is_set() else []

    def _take_from_pipes(self):
        ended = []
        for stream in self._streams:
            lines = stream.take()
            if lines is None:
                ended.append(stream)
                continue
            for line in lines:
                self.lines.append(Line(time.time(), stream.name, line))
        return ended

    # Lines

    @property
    def is_up(self):
        """Whether it has printed its start banner."""
        if not self._is_up:
            self._is_up = any(text.startswith(BANNER_START) for text in self.texts("stdout"))
        return self._is_up

    @contextlib.contextmanager
    def unread(self):
        """Context in which nobody reads its lines and its pipe holds one page."""
        with self._taking:
            self._take_from_pipes()
            self._is_read.clear()
            for stream in self._streams:
                stream.resize(_PAGE)
        try:
            yield
        finally:
            with self._taking:
                for stream in self._streams:
                    stream.resize(_PIPE_CAPACITY)
                self._is_read.set()

    def forget(self):
        """Drops the lines so far of a daemon that is up, which would pile up in a long life;
        positions stay valid."""
        assert self.is_up and self.device_name
        self.lines.forget()

    # Process

    def signal(self, number):
        os.kill(self.pid, number)

    def threads(self):
        """How many threads it has now."""
        return len(os.listdir(f"/proc/{self.pid}/task"))

    def wait_until(self, holds, what, bound=10.0):
        """Waits for a state of the process that no event announces; raises TimedOut."""
        wait_until(holds, what, bound)

    @property
    def running(self):
        return self._process.poll() is None

    def wait_for_exit(self, bound=15.0):
        """The exit status (negative for a signal) once it has ended and all its lines are in."""
        try:
            self._process.wait(bound * PATIENCE)
        except subprocess.TimeoutExpired:
            raise TimedOut(f"the daemon still runs after {bound * PATIENCE} s") from None
        self._reader.join()
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
        """Kills it if it still runs, and waits for it."""
        if self.running:
            self.signal(signal.SIGKILL)
        self._process.wait()
        self._reader.join()
