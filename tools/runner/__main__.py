"""What ./test does, once Python is installed."""

import os
import pathlib
import queue
import shutil
import signal
import sys
import threading
import time

import inherited
import options as command_line
import processes
from options import PYTHON
from suite import Suite, show_list

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
# What clang-tidy looks at although no test runs it, in the build that has clang-tidy.
CHECKED = {"debug": ["bench_tests", "bonjour", "bonjour-standard"]}
FOLDERS = ("app", "base", "mdns", "records", "printer", "standard")


def need(*command):
    """Runs a command that says itself why it fails; ends the process then."""
    status = processes.run(command)
    if status != 0:
        sys.exit(status)


def install(*groups):
    """Installs the packages of these groups of packages.txt."""
    script = '. lab/prepare.sh && require_root && require_packages "$@"'
    need("sh", "-c", script, "./test", *groups)


def build(preset, targets, background=False, output=None):
    """Builds these targets of a preset; progress goes to `output`. The exit status."""
    options = ["--background"] if background else []
    command = [PYTHON, "-BE", "lab/build.py", *options, preset, *targets]
    return processes.run(command, stdout=output)


def built(targets):
    """Builds presets, with these targets of each, in their order and in a separate thread. Gives
    each as soon as it is built, and ends the process if one can't be."""
    done = queue.SimpleQueue()

    def build_all():
        for number, preset in enumerate(targets):
            # Tests need the processor free: they look at times.
            status = build(preset, targets[preset], background=number > 0)
            done.put(status)
            if status != 0:
                return

    threading.Thread(target=build_all, daemon=True).start()
    for preset in targets:
        status = done.get()
        if status != 0:
            sys.exit(status)
        yield preset


def list_tests(options):
    """Names the tests; the builds' progress goes to standard error, apart from the names."""
    shown = 0
    for preset, groups in command_line.plan(options).items():
        # ctest knows a test once it is built.
        targets = [name for name in command_line.targets(groups) if name != "lab_tests"]
        if targets and build(preset, targets, output=sys.stderr) != 0:
            return 1
        shown += show_list(preset, groups, options.name)
    if not shown:
        sys.exit("./test: no test is meant")
    return 0


def run_tests(options):
    start = time.monotonic()
    suite = Suite(options.jobs)
    groups = command_line.plan(options)
    targets = {preset: command_line.targets(groups[preset]) for preset in groups}
    if len(groups) == len(command_line.PRESETS):
        targets = {preset: targets[preset] + CHECKED.get(preset, []) for preset in targets}
    for preset in built(targets):
        suite.run(preset, groups[preset], options.name)
    print(f"\nTotal time {time.monotonic() - start:.0f} s")
    return suite.report()


def cover(options):
    suite = Suite(options.jobs)
    preset, groups = command_line.COVERAGE, command_line.COVERAGE_GROUPS
    directory = pathlib.Path("build", preset)
    if build(preset, command_line.targets(groups)) != 0:
        return 1
    # Nothing that ran before counts.
    for counts in directory.rglob("*.gcda"):
        counts.unlink()
    suite.run(preset, groups)
    if suite.report() != 0:
        return 1
    report = directory / "report"
    report.mkdir(exist_ok=True)
    filters = "|".join(f"{folder}/" for folder in FOLDERS)
    limits = ["--fail-under-line", "100", "--fail-under-branch", "95"]
    shown = ["--txt", "-", "--print-summary", "--html-details", report / "index.html"]
    print(f"Line by line: {report}/index.html", flush=True)
    gcovr = ["gcovr", "--root", ".", "--filter", filters, *limits, *shown]
    return processes.run([*gcovr, directory])


def run_long(options):
    run = command_line.LONG_RUNS[options.long_run]
    packages = run.packages.split()
    install(*packages)
    if "test" in packages:
        need(PYTHON, "-B", "lab/rights.py", "--fuse")
    if options.long_run == command_line.COVERAGE:
        return cover(options)
    if run.is_in_lab and build("release", ["lab_tests"]) != 0:
        return 1
    kinds = [word for kind in options.kinds for word in ("--kind", kind)]
    return processes.run([*run.command.format(options.count).split(), *kinds])


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
        install("build", "test")
        if options.list:
            return list_tests(options)
        need(PYTHON, "-B", "lab/rights.py", "--fuse")
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
