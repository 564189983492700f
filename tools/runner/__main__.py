"""What ./test does, once Python is installed."""

import os
import pathlib
import shutil
import signal
import sys
import time

import builds
import inherited
import options as command_line
import processes
from options import PYTHON
from suite import Suite, environment, show_list

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
# What clang looks at when other builds are tested; the tests would be the release build's again.
CHECKED = ["bench_tests", "bonjour", "bonjour-standard", "fuzz_tests"]
FOLDERS = ("app", "base", "mdns", "records", "printer", "standard")


def need(what, *command):
    """Runs a command that says itself why it fails; ends the process then."""
    status = processes.run(command)
    if status != 0:
        sys.exit(status)


def install(*groups):
    """Installs the packages of these groups of packages.txt."""
    script = '. lab/prepare.sh && require_root && require_packages "$@"'
    need("packages", "sh", "-c", script, "./test", *groups)


def list_tests(options):
    """Names the tests; the builds' progress goes to standard error, apart from the names."""
    for preset in options.presets:
        groups = command_line.groups_of(preset, options.groups or command_line.GROUPS)
        # ctest knows a test once it is built.
        targets = [name for name in command_line.targets(groups) if name != "lab_tests"]
        if targets and builds.build(preset, targets, sys.stderr) != 0:
            return 1
        if not show_list(preset, groups, options.name):
            sys.exit(f"./test: no test of {preset} is meant")
    return 0


def run_tests(options):
    start = time.monotonic()
    suite = Suite(options.jobs)
    groups = {
        preset: command_line.groups_of(preset, options.groups or command_line.GROUPS)
        for preset in options.presets
    }
    targets = {preset: command_line.targets(groups[preset]) for preset in options.presets}
    tested = [preset for preset in options.presets if preset != "clang"] or options.presets
    if "clang" not in tested and "clang" in targets:
        targets["clang"] = CHECKED
    for preset in builds.Builds(targets):
        if preset in tested:
            suite.run(preset, groups[preset], options.name)
    print(f"\nTotal time {time.monotonic() - start:.0f} s")
    return suite.report()


def cover(options):
    suite = Suite(options.jobs)
    (directory,) = options.presets
    if builds.build(directory, command_line.targets(options.groups)) != 0:
        return 1
    # Nothing that ran before counts.
    for counts in pathlib.Path("build", directory).rglob("*.gcda"):
        counts.unlink()
    suite.run(directory, options.groups)
    if suite.report() != 0:
        return 1
    report = pathlib.Path("build", directory, "report")
    report.mkdir(exist_ok=True)
    counts = report / "counts.json"
    filters = "|".join(f"{folder}/" for folder in FOLDERS)
    need(
        "gcovr", "gcovr", "--root", ".", "--filter", filters, "--json", counts, f"build/{directory}"
    )
    show = ["gcovr", "--add-tracefile", counts, "--txt", "-"]
    need("gcovr", *show, "--html-details", report / "index.html")
    print(f"Line by line: {report}/index.html", flush=True)
    return processes.run(
        [*show, "--branches", "--fail-under-line", "100", "--fail-under-branch", "95"]
    )


def run_long(options):
    run = command_line.LONG_RUNS[options.long_run]
    if run.packages:
        install(*run.packages)
    if "test" in run.packages:
        need("rights", PYTHON, "-B", "lab/rights.py", "--fuse")
    if options.long_run == command_line.COVERAGE:
        return cover(options)
    if run.is_in_lab and builds.build("release", ["lab_tests"]) != 0:
        return 1
    own = {**environment(), run.variable: str(options.count)} if run.variable else None
    kinds = [word for kind in options.kinds for word in ("--kind", kind)]
    words = [word.format(options.count) for word in run.command]
    return processes.run([*words, *kinds], env=own)


def main():
    options = command_line.parse(sys.argv[1:])
    inherited.settle()
    for number in (signal.SIGTERM, signal.SIGHUP):
        if signal.getsignal(number) == signal.SIG_DFL:
            signal.signal(number, lambda number, _: sys.exit(128 + number))
    # Whatever tools and tests leave behind is removed with it.
    temporary = processes.temporary_directory()
    os.chdir(ROOT)
    try:
        if options.long_run:
            return run_long(options)
        if options.list:
            install("build", "test")
            return list_tests(options)
        install("build", "test")
        need("rights", PYTHON, "-B", "lab/rights.py", "--fuse")
        return run_tests(options)
    except KeyboardInterrupt:
        return 128 + signal.SIGINT
    except BrokenPipeError:
        # What is still to be printed has no reader either.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 128 + signal.SIGPIPE
    finally:
        processes.end_all()
        shutil.rmtree(temporary, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
