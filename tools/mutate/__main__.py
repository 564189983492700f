#!/usr/bin/python3
"""Changes one thing at a time in the daemon's sources and runs the tests: do they notice?

Each mutant is built in a scratch copy below build/mutate/ and given to the module's own unit tests,
then to all unit tests, then to its own under the sanitizers, then to the system and fault
tests. It is killed when one of them fails or does not end. A change that the compiler turns into
identical code is set aside, and so is one that it refuses. What survives is listed, unless
tools/mutate/survivors.toml says why nobody can observe it.
"""

import argparse
import collections
import hashlib
import json
import os
import pathlib
import queue
import re
import signal
import sys
import threading
import time
import tomllib

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.dont_write_bytecode = True
sys.path.insert(0, str(ROOT / "tools"))

from mutate.mutants import mutants_of  # noqa: E402
from mutate.scratch import Failure, Scratch, end_all  # noqa: E402

FOLDERS = ("app", "base", "mdns", "records", "printer")
SCRATCH = ROOT / "build/mutate"
RESULTS = SCRATCH / "results.jsonl"
EXPLAINED = ROOT / "tools/mutate/survivors.toml"
GOAL = 95
# Mutants that a worker takes at a time, all from one file: less to recompile.
CHUNK = 8


def all_mutants(pattern):
    paths = sorted(
        str(path.relative_to(ROOT))
        for folder in FOLDERS
        for path in (ROOT / folder).iterdir()
        if path.suffix in (".cpp", ".h")
    )
    wanted = [path for path in paths if re.search(pattern, path)]
    return [mutant for path in wanted for mutant in mutants_of(ROOT, path)]


def explained():
    """The survivors that have a reason: file, original and mutated line."""
    with open(EXPLAINED, "rb") as file:
        listed = tomllib.load(file)["survivor"]
    return {(each["file"], each["original"], each["mutated"]) for each in listed}


class Run:
    """Judges mutants with several workers, and keeps every verdict in a file."""

    def __init__(self, options):
        self.options = options
        self.verdicts = {}
        self.lock = threading.Lock()
        self.failure = None
        if options.resume and RESULTS.exists():
            for text in RESULTS.read_text().splitlines():
                entry = json.loads(text)
                if entry["verdict"] not in options.again:
                    self.verdicts[entry["id"]] = (entry["verdict"], entry["by"])
        SCRATCH.mkdir(parents=True, exist_ok=True)
        self.kept = RESULTS.open("a" if options.resume else "w", buffering=1)
        print(f"Building {options.jobs} scratch copies in {SCRATCH}", flush=True)
        self.scratches = [
            Scratch(ROOT, SCRATCH / f"job{job}", options.lab_jobs) for job in range(options.jobs)
        ]
        self.each_worker(Scratch.prepare)

    def each_worker(self, work):
        """Calls `work` with each scratch copy, at the same time."""

        def guarded(scratch):
            try:
                work(scratch)
            except Exception as error:
                self.failure = error

        workers = [
            threading.Thread(target=guarded, args=(each,), daemon=True) for each in self.scratches
        ]
        for worker in workers:
            worker.start()
        for worker in workers:
            worker.join()
        if self.failure:
            raise self.failure

    def keep(self, mutant, verdict, by, seconds):
        entry = {
            "id": mutant.id,
            "file": mutant.path,
            "line": mutant.line,
            "kind": mutant.kind,
            "original": mutant.original,
            "mutated": mutant.mutated,
            "verdict": verdict,
            "by": by,
            "seconds": round(seconds, 1),
        }
        with self.lock:
            self.verdicts[mutant.id] = (verdict, by)
            self.kept.write(json.dumps(entry) + "\n")
            if self.options.verbose or verdict == "survived":
                print(f"{verdict} {mutant}" + (f"  [{by}]" if by else ""), flush=True)

    def judge(self, mutants, how):
        """Gives each mutant to `how`, a method of a scratch copy."""
        chunks = queue.SimpleQueue()
        mutants = sorted(mutants)
        while mutants:
            size = 1
            while size < min(CHUNK, len(mutants)) and mutants[size].path == mutants[0].path:
                size += 1
            chunks.put(mutants[:size])
            mutants = mutants[size:]

        def work(scratch):
            while not self.failure:
                try:
                    chunk = chunks.get_nowait()
                except queue.Empty:
                    return
                for mutant in chunk:
                    start = time.monotonic()
                    verdict, by = how(scratch, mutant)
                    self.keep(mutant, verdict, by, time.monotonic() - start)

        self.each_worker(work)

    def verdict(self, mutant):
        return self.verdicts.get(mutant.id, ("", ""))[0]

    def by_units(self, mutants):
        self.judge([m for m in mutants if not self.verdict(m)], Scratch.judge_by_units)

    def in_lab(self, mutants):
        survivors = [m for m in mutants if self.verdict(m) == "survived"]
        if survivors:
            print(f"Giving {len(survivors)} survivors of the unit tests to the lab", flush=True)
            bound = self.scratches[0].check_lab()
            for scratch in self.scratches:
                scratch.lab_bound = bound
            self.judge(survivors, Scratch.judge_in_lab)


def report(run, mutants):
    counted = collections.Counter(run.verdict(mutant) for mutant in mutants)
    killed, survived = counted["killed"], counted["survived"]
    share = 100 * killed / max(killed + survived, 1)
    known = explained()
    survivors = [mutant for mutant in mutants if run.verdict(mutant) == "survived"]
    new = [m for m in survivors if (m.path, m.original, m.mutated) not in known]
    print()
    print(f"{killed + survived} mutants: {killed} killed ({share:.1f}%), {survived} survived")
    print(f"Set aside: {counted['equivalent']} that compile to the same code,", end=" ")
    print(f"{counted['invalid']} that do not compile")
    if new:
        print(f"Survivors that {EXPLAINED.relative_to(ROOT)} does not explain:")
    for mutant in sorted(new):
        print(f"- `{mutant.path}`: `{mutant.original}` -> `{mutant.mutated}`")
    return 0 if killed and not new and share >= GOAL else 1


def parse_arguments():
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    option = parser.add_argument
    option("--mutants", type=int, metavar="N", help="how many are to count (default: all)")
    option("--seed", type=int, default=1, help="what the choice depends on (default: 1)")
    option("--jobs", type=int, default=2, help="mutants judged at a time (default: 2)")
    option(
        "--lab-jobs",
        type=int,
        default=3 * (os.cpu_count() or 1),
        metavar="N",
        help="tests of one mutant in the lab at a time; they mostly wait",
    )
    option(
        "--files",
        default="",
        metavar="PATTERN",
        help="only files whose path matches this regular expression",
    )
    option(
        "--only",
        default="",
        metavar="PATTERN",
        help="only mutants whose line in the list matches this regular expression",
    )
    option("--no-lab", action="store_true", help="unit tests only")
    option("--resume", action="store_true", help="keep the verdicts of earlier runs")
    option(
        "--again",
        nargs="+",
        default=[],
        metavar="VERDICT",
        help="with --resume: but judge these again, for instance survived",
    )
    option("--list", action="store_true", help="list the mutants, judge none")
    option("--verbose", action="store_true", help="print every verdict")
    return parser.parse_args()


def main():
    options = parse_arguments()
    mutants = [m for m in all_mutants(options.files) if re.search(options.only, str(m))]
    # By each mutant's own text, so that a change of the sources leaves most of the choice as it is.
    mutants.sort(key=lambda m: hashlib.sha256(f"{options.seed} {m.id}".encode()).digest())
    wanted = min(options.mutants or len(mutants), len(mutants))
    if options.list:
        print(*sorted(mutants[:wanted]), sep="\n")
        return 0

    os.nice(10)
    run = Run(options)
    # What does not compile, or compiles to the same code, is replaced by the next in the order.
    taken = counted = 0
    while counted < wanted and taken < len(mutants):
        chosen = mutants[taken : taken + wanted - counted]
        taken += len(chosen)
        run.by_units(chosen)
        counted = sum(run.verdict(m) in ("killed", "survived") for m in mutants[:taken])
    if not options.no_lab:
        run.in_lab(mutants[:taken])
    return report(run, mutants[:taken])


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    try:
        sys.exit(main())
    except Failure as failure:
        sys.exit(str(failure))
    except KeyboardInterrupt:
        sys.exit(130)
    finally:
        end_all()
