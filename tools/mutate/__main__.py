"""Changes one thing at a time in the daemon's sources and runs the tests: do they notice?

Each mutant is built in a scratch copy below build/mutate/ and given to the module's own unit tests,
then to all unit tests, then to its own under the sanitizers, then to the tests in the lab. It is
killed when one of them fails or does not end. A change that the compiler turns into identical code
is set aside, and so is one that it refuses. What survives is listed, unless
tools/mutate/survivors.toml says why nobody can observe it.
"""

import argparse
import collections
import concurrent.futures
import hashlib
import os
import pathlib
import queue
import re
import signal
import sys
import tomllib

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.dont_write_bytecode = True
sys.path.insert(0, str(ROOT / "tools"))

from mutate.mutants import mutants_of  # noqa: E402
from mutate.scratch import Failure, Scratch, end_all  # noqa: E402

EXPLAINED = ROOT / "tools/mutate/survivors.toml"
FOLDERS = ("app", "base", "mdns", "records", "printer", "standard")
GOAL = 95


def all_mutants(root):
    paths = sorted(
        str(path.relative_to(root))
        for folder in FOLDERS
        for path in (root / folder).iterdir()
        if path.suffix in (".cpp", ".h")
    )
    return [mutant for path in paths for mutant in mutants_of(root, path)]


def judge(mutants, wanted, options):
    """Judges mutants in their order until so many count, and gives their verdicts."""
    jobs = min(options.jobs, wanted)
    directory = options.root / "build/mutate"
    idle = queue.SimpleQueue()
    verdicts = {}

    def prepare(number):
        scratch = Scratch(options.root, directory / f"job{number}")
        scratch.prepare()
        idle.put(scratch)

    def judge_one(mutant):
        scratch = idle.get()
        try:
            verdict, by = scratch.judge(mutant, not options.unit_only)
        finally:
            idle.put(scratch)
        print(f"{verdict:10} {mutant}" + (f"  [{by}]" if by else ""), flush=True)
        return verdict

    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        try:
            print(f"Building {jobs} scratch copies below {directory}", flush=True)
            list(pool.map(prepare, range(jobs)))
            counted = 0
            while mutants and counted < wanted:
                # What does not count is replaced by the next in the order. In the order of the
                # sources there is less to recompile.
                chosen, mutants = mutants[: wanted - counted], mutants[wanted - counted :]
                chosen.sort()
                verdicts.update(zip(chosen, pool.map(judge_one, chosen)))
                counted = sum(verdict in ("killed", "survived") for verdict in verdicts.values())
        except BaseException:
            end_all()
            pool.shutdown(cancel_futures=True)
            raise
    return verdicts


def report(verdicts, explained):
    counted = collections.Counter(verdicts.values())
    killed, survived = counted["killed"], counted["survived"]
    share = 100 * killed / max(killed + survived, 1)
    new = [m for m in verdicts if verdicts[m] == "survived" and m.change not in explained]
    print(f"\n{killed + survived} mutants: {killed} killed ({share:.1f}%), {survived} survived")
    print(f"Set aside: {counted['equivalent']} that compile to the same code,", end=" ")
    print(f"{counted['invalid']} that do not compile")
    if new:
        print(f"Survivors that {EXPLAINED.name} does not explain:")
        print(*sorted(new), sep="\n")
    return 0 if killed and not new and share >= GOAL else 1


def explained_survivors(mutants):
    """File and mutated lines of the survivors that have a reason."""
    listed = tomllib.loads(EXPLAINED.read_text())["survivor"]
    known = {(each["file"], each["mutated"]) for each in listed}
    stale = known - {mutant.change for mutant in mutants}
    if stale:
        raise Failure(f"{EXPLAINED.name} explains what is no mutant: {sorted(stale)}")
    return known


def parse_arguments():
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    option = parser.add_argument
    option("--mutants", type=int, metavar="N", help="how many are to count (default: all)")
    option("--seed", type=int, default=1, help="what the choice depends on (default: 1)")
    option("--only", default="", metavar="PATTERN", help="only those whose line in the list "
           "matches this regular expression, for instance records/encode.cpp or '^printer/'")
    option("--unit-only", action="store_true", help="no tests in the lab")
    option("--jobs", type=int, default=os.cpu_count(), help="mutants judged at a time")
    option("--root", type=pathlib.Path, default=ROOT, metavar="DIRECTORY",
           help="another checkout, whose sources and tests are tried")
    option("--list", action="store_true", help="list the mutants, judge none")
    return parser.parse_args()


def main():
    options = parse_arguments()
    options.root = options.root.resolve()
    mutants = all_mutants(options.root)
    explained = explained_survivors(mutants) if options.root == ROOT else set()
    mutants = [mutant for mutant in mutants if re.search(options.only, str(mutant))]
    # By each mutant's own text, so that a change of the sources leaves most of the choice as it is.
    mutants.sort(key=lambda m: hashlib.sha256(f"{options.seed} {m.id}".encode()).digest())
    wanted = min(options.mutants or len(mutants), len(mutants))
    if options.list:
        print(*sorted(mutants[:wanted]), sep="\n")
        return 0
    os.nice(10)
    return report(judge(mutants, wanted, options), explained)


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    try:
        sys.exit(main())
    except Failure as failure:
        sys.exit(str(failure))
    except KeyboardInterrupt:
        sys.exit(130)
