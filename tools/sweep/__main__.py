#!/usr/bin/python3
"""Lets every single call of the daemon fail, one in each run, and checks what happens.

The daemon runs its course in the lab: start, probe, a printer with a model and one whose model
comes from its device id, the three sorts of question, a printer out and one in, stop. For each
call of libc that it makes on the way there are two runs: that call alone fails; and from it on
every call of the same function fails for a second. Whatever happens, the daemon may write no line
that is not one of its own and send no malformed packet; once the fault is over everything that was
announced is answered; and the end is clean, with status 0 and every goodbye: no crash, no hang, no
busy loop, nothing left.

The runs go side by side, each in its own lab. What a failed run did is kept in
build/PRESET/sweep-failures/.
"""

import argparse
import collections
import contextlib
import multiprocessing
import os
import pathlib
import queue
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.dont_write_bytecode = True
for folder in ("", "tests", "tests/faults", "tools"):
    sys.path.insert(0, str(ROOT / folder))

from lab import Lab  # noqa: E402
from sweep.faults import all_faults  # noqa: E402
from sweep.walk import ERRORS, Unsuited, Walk, prepare  # noqa: E402

TARGETS = ("bonjour", "usblp_device", "fault_shim")
# Walks without a fault, to learn which calls there are.
PLAIN_WALKS = 4
LABS_PER_PROCESSOR = 20
# How often a walk is repeated at most until it says something about the fault.
TRIES = 3


def build(preset):
    for command in (
        ["cmake", "--preset", preset],
        ["cmake", "--build", "--preset", preset, "--target", *TARGETS],
    ):
        done = subprocess.run(command, cwd=ROOT, capture_output=True, text=True)
        if done.returncode != 0:
            sys.exit(done.stdout + done.stderr)


def end_when_told():
    """Lets a signal end this process by way of its `finally`s, which no further signal disturbs."""

    def end(*_):
        for number in (signal.SIGINT, signal.SIGTERM):
            signal.signal(number, signal.SIG_IGN)
        raise KeyboardInterrupt

    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, end)


class Worker:
    """A process with its own lab, which takes orders until it is ended."""

    def __init__(self, orders, results, board, failures):
        self._orders = orders
        self._results = results
        self._board = board
        self._failures = failures
        self._parent = os.getpid()
        self.process = multiprocessing.get_context("fork").Process(target=self._work)
        self.process.start()

    def _work(self):
        end_when_told()
        try:
            order = self._next()
            while order is not None:
                with Lab() as lab:
                    prepare(lab)
                    is_clean = True
                    # After a failure nothing in its lab is trusted.
                    while is_clean and order is not None:
                        is_clean = self._carry_out(lab, *order)
                        order = self._next()
        except KeyboardInterrupt:
            pass

    def _next(self):
        """The next order; none once whoever gives them is gone."""
        while os.getppid() == self._parent:
            with contextlib.suppress(queue.Empty):
                return self._orders.get(timeout=1)
        return None

    def _carry_out(self, lab, number, fault, on_sockets):
        problem = made = None
        for _ in range(TRIES):
            walk = Walk(lab, self._board, fault, on_sockets)
            try:
                walk.run()
                problem = None
                made = None if fault else walk.made()
                break
            except Exception as failure:  # pylint: disable=broad-except
                problem = f"{type(failure).__name__}: {failure}"
                story = self._failures / f"{number}.txt"
                story.write_text(f"{fault}\n{problem}\n\n{walk.story()}")
                # On a busy machine a sender may have ended before the next packet, which then
                # takes its job, a mapping less; or the stop did not wait for it any longer.
                if not isinstance(failure, Unsuited):
                    break
            finally:
                walk.close()
        self._results.put((number, problem, made))
        return problem is None


class Team:
    """The workers, their orders and their reports."""

    def __init__(self, jobs, directory, failures):
        context = multiprocessing.get_context("fork")
        self._orders = context.Queue()
        self._results = context.Queue()
        self._workers = [
            Worker(self._orders, self._results, directory / f"board{number}", failures)
            for number in range(jobs)
        ]

    def run(self, orders):
        """Has (fault, on_sockets) run and yields (fault, problem, walk) as they come."""
        for number, order in enumerate(orders):
            self._orders.put((number, *order))
        for _ in orders:
            number, problem, made = self._next()
            yield orders[number][0], problem, made

    def _next(self):
        while True:
            try:
                return self._results.get(timeout=1)
            except queue.Empty:
                if not all(worker.process.is_alive() for worker in self._workers):
                    sys.exit("a worker has ended by itself")

    def close(self):
        for worker in self._workers:
            worker.process.terminate()
        for worker in self._workers:
            worker.process.join()
        # Orders that nobody took.
        self._orders.cancel_join_thread()


def plain_walks(team):
    """The walks without a fault: those whose log goes to pipes, and those with sockets."""
    orders = [(None, False)] * PLAIN_WALKS + [(None, True)] * PLAIN_WALKS
    walks = {False: [], True: []}
    for _, problem, made in team.run(orders):
        if problem:
            sys.exit(f"already without a fault: {problem}")
        walks[made.on_sockets].append(made)
    return walks[False], walks[True]


def report(faults, failed, seconds):
    """The table for docs/resilience.md."""
    print("| Call | fails with | calls | runs | wrong |")
    print("|---|---|---:|---:|---:|")
    for function, errors in ERRORS.items():
        runs = [fault for fault in faults if fault.function == function]
        if not runs:
            continue
        calls = len({(fault.phase, fault.thread, fault.number) for fault in runs})
        wrong = sum(fault in failed for fault in runs)
        names = ", ".join(dict.fromkeys(errors))
        print(f"| {function} | {names} | {calls} | {len(runs)} | {wrong} |")
    print(f"| all | | | {len(faults)} | {len(failed)} |")
    print(f"\n{len(faults)} runs in {seconds / 60:.1f} minutes, {len(failed)} wrong")


def sweep(team, pattern, listing):
    begun = time.monotonic()
    faults = [
        fault
        for fault in all_faults(*plain_walks(team))
        if re.search(pattern, str(fault))
    ]
    if not faults:
        sys.exit("no fault has such a name")
    if listing:
        print(*faults, sep="\n")
        return 0
    failed = set()
    orders = [(fault, fault.on_sockets) for fault in faults]
    done = collections.Counter()
    for fault, problem, _ in team.run(orders):
        done[problem is None] += 1
        if problem:
            failed.add(fault)
            print(f"{fault}: {problem}", flush=True)
        if done.total() % 100 == 0:
            print(f"{done.total()} of {len(faults)}", file=sys.stderr, flush=True)
    report(faults, failed, time.monotonic() - begun)
    return 1 if failed else 0


def main():
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("--preset", default="release", help="the build, by default release")
    parser.add_argument("--name", default="", help="only faults whose name matches this")
    parser.add_argument("--list", action="store_true", help="name the faults instead")
    parser.add_argument(
        "--jobs",
        type=int,
        default=LABS_PER_PROCESSOR * (os.cpu_count() or 1),
        help="how many run side by side",
    )
    options = parser.parse_args()
    if os.geteuid() != 0:
        sys.exit("must be run as root: it makes network namespaces")
    build(options.preset)
    directory = ROOT / "build" / options.preset
    os.environ["BONJOUR"] = str(directory / "bonjour")
    os.environ["BONJOUR_USBLP_DEVICE"] = str(directory / "lab/usblp_device")
    failures = directory / "sweep-failures"
    shutil.rmtree(failures, ignore_errors=True)
    failures.mkdir()

    end_when_told()
    with tempfile.TemporaryDirectory() as boards:
        team = Team(options.jobs, pathlib.Path(boards), failures)
        try:
            return sweep(team, options.name, options.list)
        finally:
            team.close()


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
