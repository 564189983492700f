"""The demonstration on a whole router: what it tells, and that nothing of it stays behind."""

import pathlib
import re
import signal
import subprocess
import sys

from lab.waiting import PATIENCE, wait_until

COMMAND = [sys.executable, "-m", "lab.vm.demo"]
BOUND = 180.0
STEPS = [
    "asks who has the name T5140_00-11-22-AA-BB-CC.local",
    "A printer is plugged in: HP LaserJet 1018",
    "MFG:HP;MDL:LaserJet 1018;CMD:ZJS,PJL;",
    "A new host on the link looks for printers",
    "HP LaserJet 1018 (aa:bb:cc) 0   raw printing   192.168.77.1   9100",
    "it says goodbye for every printer left",
    "the host's list is empty",
    "Done in",
]


def emulators(parent):
    """The numbers of the machines that this process has started."""
    children = pathlib.Path(f"/proc/{parent}/task/{parent}/children").read_text().split()
    return [
        child
        for child in children
        if pathlib.Path(f"/proc/{child}/comm").read_text().startswith("qemu")
    ]


def test_demo_tells_of_a_routers_whole_life():
    done = subprocess.run(
        COMMAND, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=BOUND * PATIENCE
    )
    assert (done.returncode, done.stderr) == (0, "")
    assert re.search(".*".join(map(re.escape, STEPS)), done.stdout, re.DOTALL), done.stdout


def test_machine_ends_with_a_demo_that_is_killed():
    with subprocess.Popen(COMMAND, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL) as demo:
        try:
            wait_until(lambda: emulators(demo.pid), "a machine is started")
            (machine,) = emulators(demo.pid)
        finally:
            demo.send_signal(signal.SIGKILL)
    wait_until(lambda: not pathlib.Path(f"/proc/{machine}").exists(), "the machine has ended")
