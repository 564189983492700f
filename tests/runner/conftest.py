"""What the tests of the two commands share: copies of the tree, and programs that stand in for the
ones that would build and test for minutes."""

import os
import pathlib
import shutil
import signal
import subprocess
import uuid

import pytest
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
        self.process = subprocess.Popen(
            [str(word) for word in words],
            env=environment,
            stdout=options.pop("stdout", subprocess.PIPE),
            stderr=options.pop("stderr", subprocess.PIPE),
            stdin=options.pop("stdin", subprocess.DEVNULL),
            text=True,
            **options,
        )

    def finish(self):
        """Its exit status, output and error output."""
        output, errors = self.process.communicate(timeout=BOUND)
        return self.process.returncode, output, errors

    def left(self):
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

    def close(self):
        for pid in self.left():
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        self.process.wait()
        for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
            if stream:
                stream.close()


@pytest.fixture
def start():
    """Starts a command in the tree; ends what is left of it when the test does."""
    started = []

    def begin(*words, **options):
        options.setdefault("cwd", ROOT)
        started.append(Command(words, **options))
        return started[-1]

    yield begin
    for each in started:
        each.close()


@pytest.fixture
def run(start):
    """Runs a command in the tree: its exit status, output and error output."""
    return lambda *words, **options: start(*words, **options).finish()


@pytest.fixture
def stand_ins(tmp_path):
    """Makes programs that stand in for others of the same name: give(name, script). Returns the
    environment in which they are found."""
    directory = tmp_path / "programs"
    directory.mkdir()

    def give(**scripts):
        for name, script in scripts.items():
            (directory / name).write_text(f"#!/bin/sh\n{script}\n")
            (directory / name).chmod(0o755)
        return {"PATH": f"{directory}:{os.environ['PATH']}", "TMPDIR": str(tmp_path)}

    return give


@pytest.fixture
def tree(tmp_path):
    """A copy of the sources, in a directory with a blank in its name."""
    copy = tmp_path / "a tree"
    shutil.copytree(ROOT, copy, ignore=shutil.ignore_patterns("build", ".git", "__pycache__"))
    return copy
