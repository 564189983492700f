"""What the tests of the two commands share: programs that stand in for the ones that would build
and test for minutes."""

import os
from contextlib import ExitStack, closing

import pytest
from commands import Command


@pytest.fixture
def start():
    """Starts a command in the tree; ends what is left of it when the test does."""
    with ExitStack() as started:
        yield lambda *words, **how: started.enter_context(closing(Command(words, **how)))


@pytest.fixture
def run(start):
    """Runs a command in the tree: its exit status, output and error output."""
    return lambda *words, **options: start(*words, **options).finish()


@pytest.fixture
def stand_ins(tmp_path):
    """Makes programs that stand in for others of the same name: give(name=script). Returns the
    environment in which they are found."""
    directory = tmp_path / "programs"
    directory.mkdir()

    def give(**scripts):
        for name, script in scripts.items():
            program = directory / name.replace("_", "-")
            program.write_text(f"#!/bin/sh\n{script}\n")
            program.chmod(0o755)
        return {"PATH": f"{directory}:{os.environ['PATH']}", "TMPDIR": str(tmp_path)}

    return give
