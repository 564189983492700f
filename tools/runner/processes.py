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

_groups = set()


def start(command, **options):
    """Starts a program in its own process group, which Ctrl-C at the terminal does not reach;
    end_all() does."""
    started = subprocess.Popen(
        [str(word) for word in command],
        stdin=subprocess.DEVNULL,
        start_new_session=True,
        **options,
    )
    _groups.add(started.pid)
    return started


def finish(started):
    """Waits for a program and returns its status."""
    status = started.wait()
    if not _alive(started.pid):
        _groups.discard(started.pid)
    return status


def run(command, **options):
    return finish(start(command, **options))


def _alive(group):
    try:
        os.killpg(group, 0)
    except ProcessLookupError:
        return False
    return True


def temporary_directory():
    """Makes a directory of this run's own the one for temporary files. What is started has its
    name in its environment, by which end_all() finds what left its group."""
    made = tempfile.mkdtemp(prefix="bonjour-test-")
    os.environ["TMPDIR"] = made
    return made


def _marked():
    """The other processes that have this run's directory in their environment."""
    mark = f"TMPDIR={os.environ['TMPDIR']}".encode()
    found = []
    for path in pathlib.Path("/proc").glob("[0-9]*/environ"):
        pid = int(path.parent.name)
        with contextlib.suppress(OSError):
            if pid != os.getpid() and mark in path.read_bytes().split(b"\0"):
                found.append(pid)
    return found


def _signal(number, targets, send):
    for target in targets:
        with contextlib.suppress(ProcessLookupError):
            send(target, number)


def _reap():
    with contextlib.suppress(ChildProcessError):
        while os.waitpid(-1, os.WNOHANG)[0] != 0:
            pass


def _wait(until, seconds):
    """Whether it came true within that time."""
    deadline = time.monotonic() + seconds
    while not until():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.02)
        _reap()
    return True


def end_all():
    """Ends every program that still runs, and all that it has started."""
    _signal(signal.SIGTERM, _groups, os.killpg)
    _wait(lambda: not any(_alive(group) for group in _groups), PATIENCE_SECONDS)
    _groups.clear()
    for number in (signal.SIGTERM, signal.SIGKILL):
        _signal(number, _marked(), os.kill)
        if _wait(lambda: not _marked(), PATIENCE_SECONDS):
            return
