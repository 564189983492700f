"""The programs that ./test starts: none of them outlives it, however it ends."""

import contextlib
import os
import pathlib
import signal
import subprocess
import tempfile
import time

# A test in the lab takes it down first.
PATIENCE_SECONDS = 15


def start(command, **options):
    """Starts a program in its own session, which Ctrl-C at the terminal does not reach; end_all()
    does."""
    return subprocess.Popen(
        [str(word) for word in command],
        stdin=subprocess.DEVNULL,
        start_new_session=True,
        **options,
    )


def run(command, **options):
    """The exit status."""
    return start(command, **options).wait()


def temporary_directory():
    """Makes a directory of this run's own the one for temporary files. What is started has its
    name in its environment, by which end_all() finds it."""
    made = tempfile.mkdtemp(prefix="bonjour-test-")
    os.environ["TMPDIR"] = made
    return made


def marked(variable):
    """The other processes with this NAME=VALUE in their environment; no zombie has it."""
    found = []
    for path in pathlib.Path("/proc").glob("[0-9]*/environ"):
        pid = int(path.parent.name)
        with contextlib.suppress(OSError):
            if pid != os.getpid() and variable.encode() in path.read_bytes().split(b"\0"):
                found.append(pid)
    return found


def end_all():
    """Ends every program that still runs, and all that it has started."""
    mark = f"TMPDIR={os.environ['TMPDIR']}"
    for number in (signal.SIGTERM, signal.SIGKILL):
        for pid in marked(mark):
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, number)
        deadline = time.monotonic() + PATIENCE_SECONDS
        while marked(mark) and time.monotonic() < deadline:
            time.sleep(0.02)
