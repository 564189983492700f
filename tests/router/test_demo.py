"""The demonstration on a whole router."""

import re
import subprocess
import sys

from lab.waiting import PATIENCE

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


def test_demo_tells_of_a_routers_whole_life():
    command = [sys.executable, "-m", "lab.vm.demo"]
    done = subprocess.run(command, capture_output=True, text=True, timeout=BOUND * PATIENCE)
    assert (done.returncode, done.stderr) == (0, "")
    assert re.search(".*".join(map(re.escape, STEPS)), done.stdout, re.DOTALL), done.stdout
