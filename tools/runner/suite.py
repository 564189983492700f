"""Runs of ctest, one a build, that count as one."""

import contextlib
import os
import pathlib
import re
import subprocess

import processes
from builds import PYTHON

_RESULT = re.compile(r" *(\d+)/(\d+) Test +#\d+: (.*) \.+(?:\*\*\*| +)(\S.*?) +([\d.]+) sec\s*")
# What ctest says beside it.
_TALK = re.compile(
    r" +Start +\d+: |Internal ctest changing |Test project |No tests were found|Errors while "
)
# The status of ctest that has no test to run.
_NONE_MEANT = 8
_SUMMARY = re.compile(r"\d+% tests passed, \d+ tests failed out of (\d+)")
_FAILED = re.compile(r"\s*\d+ - (.*) \((.*)\)")
_LISTED = re.compile(r" +Test +#\d+: (.*)")


def _steady():
    """What the thread sanitizer needs: its layout of memory does not bear the widest address
    randomisation."""
    bits = pathlib.Path("/proc/sys/vm/mmap_rnd_bits")
    wide = bits.exists() and int(bits.read_text()) > 28
    return ["setarch", "-R"] if wide else []


def _prefix(preset):
    return _steady() if preset == "tsan" else []


def _command(preset, selection):
    ctest = ["ctest", "--test-dir", f"build/{preset}", "--no-tests=error"]
    return [*_prefix(preset), *ctest, *selection]


@contextlib.contextmanager
def _pytest_server(preset):
    """Has pytest loaded once for all tests of a build. Gives the environment by which they find
    it."""
    name = f"{pathlib.Path(os.environ['TMPDIR']).name}-{preset}"
    server = processes.start(
        [*_prefix(preset), PYTHON, "-B", "tests/pytest_server.py", name], stdout=subprocess.PIPE
    )
    listens = server.stdout.readline() != b""
    yield {**os.environ, "BONJOUR_PYTEST_SERVER": name} if listens else None
    server.terminate()
    processes.finish(server)


def listed(preset, selection):
    """The names of a build's tests."""
    command = [*_command(preset, selection), "--show-only"]
    shown = processes.start(command, stdout=subprocess.PIPE, text=True)
    names = [
        match[1] for match in map(_LISTED.fullmatch, shown.stdout.read().splitlines()) if match
    ]
    processes.finish(shown)
    return names


class Suite:
    def __init__(self, jobs):
        self._jobs = jobs
        self.tests = 0
        self.failed = []

    def run(self, preset, selection, with_pytest):
        """Runs a build's tests of that selection, and prints a line for each."""
        print(f"Testing {preset}", flush=True)
        server = _pytest_server(preset) if with_pytest else contextlib.nullcontext()
        with server as environment:
            self._run(preset, selection, environment)

    def _run(self, preset, selection, environment):
        command = _command(preset, ["--output-on-failure", "--parallel", self._jobs, *selection])
        running = processes.start(
            command,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            env=environment,
            text=True,
            errors="replace",
        )
        tests = None
        for line in running.stdout:
            summary = _SUMMARY.match(line)
            if summary:
                tests = int(summary[1])
            if tests is None:
                self._relay(line)
            else:
                self.failed += [
                    match.groups() for match in [_FAILED.fullmatch(line.rstrip())] if match
                ]
        status = processes.finish(running)
        if tests is None and status == _NONE_MEANT:
            self.failed.append((f"no test of {preset} is meant", "nothing was run"))
        elif tests is None:
            self.failed.append((f"the tests of {preset}", f"ctest ended with status {status}"))
        self.tests += tests or 0

    def _relay(self, line):
        result = _RESULT.fullmatch(line)
        if result:
            number, count, name, outcome, seconds = result.groups()
            print(f"{number:>{len(count)}}/{count} {outcome} {seconds:>6} s  {name}", flush=True)
        elif not _TALK.match(line):
            print(line, end="", flush=True)

    def report(self):
        """Prints the summary. The exit status."""
        if self.failed:
            print("\nThe following tests FAILED:")
            print("\n".join(f"  {name} ({how})" for name, how in self.failed))
        passed = max(self.tests - len(self.failed), 0)
        share = 100 * passed // max(self.tests, 1)
        print(f"\n{share}% tests passed, {len(self.failed)} tests failed out of {self.tests}")
        return 1 if self.failed or not self.tests else 0
