"""What the sweep of every call stands on: see tools/sweep, which is run by option."""

import pytest
from lab.daemon import binary
from sweep.faults import unknown_calls
from sweep.walk import Fault, Walk, prepare

FAULTS = [
    Fault("start", 1, "pthread_create", 1),
    Fault("questions", 3, "socket", 2, lasts=True),
    Fault("stop", 1, "calloc", 1, lasts=True),
]


@pytest.mark.release
def test_every_function_that_the_daemon_calls_is_swept_or_cannot_fail():
    assert unknown_calls(binary()) == set()


def go(lab, path, **how):
    prepare(lab)
    walk = Walk(lab, path, **how)
    try:
        walk.run()
    finally:
        walk.close()


@pytest.mark.uncounted
@pytest.mark.seconds(8)
@pytest.mark.parametrize("on_sockets", [False, True], ids=["pipes", "sockets"])
def test_walk_of_the_sweep_holds_without_a_fault(lab, tmp_path, on_sockets):
    go(lab, tmp_path / "board", on_sockets=on_sockets)


@pytest.mark.uncounted
@pytest.mark.seconds(8)
@pytest.mark.parametrize("fault", FAULTS, ids=str)
def test_walk_of_the_sweep_holds_with_a_fault(lab, tmp_path, fault):
    go(lab, tmp_path / "board", fault=fault)
