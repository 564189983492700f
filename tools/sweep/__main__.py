#!/usr/bin/python3
"""Lets every single call of the daemons fail, one in each run, and checks what happens.

A daemon runs its course in the lab: start, a printer with a model and one whose model comes from
its device id, questions of each sort, a printer out and one in, stop. For each call of libc that it
makes on the way there are two runs: that call alone fails; and from it on every call of the same
function fails for a second. Whatever happens, the daemon may write no line that is not one of its
own and send no malformed packet; once the fault is over everything that was announced is answered;
and the end is clean, with status 0 and every goodbye: no crash, no hang, no busy loop, nothing
left. Other arguments go to pytest.
"""

import argparse
import collections
import os
import pathlib
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.dont_write_bytecode = True
sys.path[:0] = [str(ROOT / folder) for folder in ("", "tests", "tests/faults", "tools")]

from sweep.faults import all_faults  # noqa: E402
from sweep.walk import walk  # noqa: E402

# Walks without a fault, to learn which calls there are.
PLAIN_WALKS = 3
LABS_PER_PROCESSOR = 20
PLUGINS = [f"-p{name}" for name in ("pytest_timeout", "xdist.plugin", "no:cacheprovider")]


def report(faults):
    """For docs/resilience.md: how many calls of each function fail."""
    calls = collections.Counter((each.responder, each.function) for each in faults if each.lasts)
    for (responder, function), count in sorted(calls.items()):
        print(f"| {responder} | {function} | {count} |")
    print(f"{len(faults)} runs")


def run(rows, jobs, others, environment):
    """The exit status of pytest, for the faults in the file `rows`, so many at a time."""
    # As from the command line: workers of pytest start with what it was started with.
    pytest = [sys.executable, "-m", "pytest", "-q", *PLUGINS, f"--numprocesses={jobs}", *others]
    test = f"{ROOT}/tests/faults/test_sweep.py::test_daemon_survives"
    needed = {"BONJOUR_SWEEP": str(rows), "PYTEST_DISABLE_PLUGIN_AUTOLOAD": "1"}
    environment = {**os.environ, **needed, **environment}
    return subprocess.run([*pytest, test], cwd=ROOT, env=environment).returncode


def main():
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    option = parser.add_argument
    option("--preset", default="release", help="the build, by default release")
    option("--responder", choices=("classic", "standard"), action="append", help="only this one")
    jobs = LABS_PER_PROCESSOR * os.cpu_count()
    option("--jobs", type=int, default=jobs, help="how many run side by side")
    options, others = parser.parse_known_args()
    build = ROOT / "build" / options.preset
    os.environ["BONJOUR"] = str(build / "bonjour")
    os.environ["BONJOUR_USBLP_DEVICE"] = str(build / "lab/usblp_device")
    with tempfile.TemporaryDirectory() as directory:
        board, rows, later = (pathlib.Path(directory, name) for name in ("board", "rows", "later"))
        faults = []
        for responder in options.responder or ("classic", "standard"):
            faults += all_faults(responder, [walk(responder, board) for _ in range(PLAIN_WALKS)])
        rows.write_text("".join(fault.row() for fault in faults))
        report(faults)
        status = run(rows, options.jobs, others, {"BONJOUR_SWEEP_LATER": str(later)})
        if later.exists():
            status = run(later, 0, others, {}) or status
        return status


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
