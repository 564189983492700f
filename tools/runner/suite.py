"""Runs of ctest and of pytest, two a build, that count as one."""

import os
import pathlib
import re
import shutil
import subprocess
import xml.etree.ElementTree as ElementTree

import options as command_line
import processes
from options import PYTHON

_PLUGINS = [f"-p{name}" for name in ("pytest_timeout", "xdist.plugin", "no:cacheprovider")]
# The status of pytest that has no test to run.
_NONE_MEANT = 5


def _steady(preset):
    """What the thread sanitizer needs: its memory layout does not work with the widest address
    randomisation."""
    bits = pathlib.Path("/proc/sys/vm/mmap_rnd_bits")
    wide = bits.exists() and int(bits.read_text()) > 28
    return ["setarch", "-R"] if preset == "tsan" and wide else []


def _environment():
    """That of programs written in Python, pytest among them. They keep what they compile: a dozen
    workers a build read it again."""
    own = {"PYTEST_DISABLE_PLUGIN_AUTOLOAD": "1", "PYTHONPATH": os.getcwd()}
    inherited = {**os.environ, **own}
    inherited.pop("PYTHONDONTWRITEBYTECODE", None)
    return inherited


def _own(name):
    """A path in the directory that only this run has."""
    return pathlib.Path(os.environ["TMPDIR"], name)


def _ctest(preset, groups, name, *how):
    labels = [group for group in groups if group in command_line.CTEST_GROUPS]
    chosen = ["--label-regex", f"^({'|'.join(labels)})$", "--tests-regex", name or "."]
    return [*_steady(preset), "ctest", "--test-dir", f"build/{preset}", *chosen, *how]


def _pytest(preset, groups, name, *how):
    some = [group for group in groups if group not in command_line.CTEST_GROUPS]
    chosen = [f"--preset={preset}", "--name", name or "", "-q", *map(command_line.folder, some)]
    return [*_steady(preset), PYTHON, "-m", "pytest", *_PLUGINS, *chosen, *how]


def show_list(preset, groups, name):
    """Prints the names of a build's tests of these groups, those with such a name. Whether there
    are any."""
    commands = []
    if set(groups) & set(command_line.CTEST_GROUPS):
        commands.append((_ctest(preset, groups, name, "--show-only"), r"^ *Test +#\d+: (.*)$"))
    if set(groups) - set(command_line.CTEST_GROUPS):
        commands.append((_pytest(preset, groups, name, "--collect-only"), r"^\S+\.py::.*$"))
    names = []
    for command, pattern in commands:
        listing = processes.start(command, stdout=subprocess.PIPE, text=True, env=_environment())
        names += re.findall(pattern, listing.communicate()[0], re.MULTILINE)
    print(*names, sep="\n")
    return bool(names)


class Suite:
    def __init__(self, jobs):
        self._jobs = str(jobs)
        self.tests = 0
        self.failed = []

    def run(self, preset, groups, name=None):
        """Runs a build's tests of these groups, those with such a name."""
        print(f"Testing {preset}", flush=True)
        before = self.tests + len(self.failed)
        if set(groups) & set(command_line.CTEST_GROUPS):
            how = ["--parallel", self._jobs, "--output-on-failure"]
            self._run(preset, "ctest", _ctest(preset, groups, name, *how), "--output-junit")
        if set(groups) - set(command_line.CTEST_GROUPS):
            self._run_pytest(preset, groups, name)
        if name is None and self.tests + len(self.failed) == before:
            self.failed.append(f"no test of {preset} is meant")

    def _run_pytest(self, preset, groups, name):
        # A run that a test starts has its own: two runs share nothing but what they build.
        captures = _own(f"{preset}-captures")
        pytest = _pytest(preset, groups, name, "--captures", captures)
        beside = ["-m", "not alone and not whole", "-n", self._jobs, "--dist", "loadgroup"]
        self._run(preset, "pytest", [*pytest, *beside], "--junit-xml")
        # No other test may run beside these.
        by_itself = [*pytest, "-m", "alone and not whole"]
        self._run(preset, "pytest-alone", by_itself, "--junit-xml")
        self._dissect(preset, captures)

    def _run(self, preset, program, command, option):
        results = _own(f"{preset}-{program}.xml")
        running = processes.start(
            [*command, option, results],
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            env=_environment(),
            text=True,
            errors="replace",
        )
        # A line at a time: what builds print must not end up inside one.
        for line in running.stdout:
            print(line, end="", flush=True)
        status = running.wait()
        failed = self._count(preset, results) if results.exists() else 0
        if status not in (0, _NONE_MEANT) and not failed:
            self.failed.append(f"{program} of {preset} ended with status {status}")

    def _dissect(self, preset, captures):
        """A second opinion on what the daemons of these tests sent."""
        if not captures.exists():
            return
        self.tests += 1
        command = [PYTHON, "-m", "lab.dissect", captures]
        if processes.run(command, env=_environment()) != 0:
            self.failed.append(f"packets that tshark refuses ({preset})")
            shutil.copytree(captures, f"build/{preset}/lab-failures/refused", dirs_exist_ok=True)

    def _count(self, preset, results):
        cases = ElementTree.parse(results).getroot().findall(".//testcase")
        failed = [
            f"{case.get('classname')}: {case.get('name')} ({preset})"
            for case in cases
            if case.get("status") == "fail" or {child.tag for child in case} & {"failure", "error"}
        ]
        self.tests += len(cases)
        self.failed += failed
        return len(failed)

    def report(self):
        """Prints the summary. The exit status."""
        if not self.tests and not self.failed:
            self.failed.append("no test is meant")
        if self.failed:
            print("\nThe following tests FAILED:", *self.failed, sep="\n  ")
        passed = max(self.tests - len(self.failed), 0)
        share = 100 * passed // max(self.tests, 1)
        print(f"\n{share}% tests passed, {len(self.failed)} tests failed out of {self.tests}")
        return 1 if self.failed else 0
