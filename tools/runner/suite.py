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


def _ctest(preset, groups, name, *others):
    chosen = ["--label-regex", f"^({'|'.join(groups)})$", "--tests-regex", name or "."]
    return [*_steady(preset), "ctest", "--test-dir", f"build/{preset}", *chosen, *others]


def _pytest(preset, groups, name, *others):
    chosen = [f"--preset={preset}", "--name", name or "", "-q"]
    folders = [command_line.folder(group) for group in groups]
    return [*_steady(preset), PYTHON, "-m", "pytest", *_PLUGINS, *chosen, *others, *folders]


def environment():
    """That of programs written in Python, pytest among them. They keep what they compile: a dozen
    workers a build read it again."""
    own = {"PYTEST_DISABLE_PLUGIN_AUTOLOAD": "1", "PYTHONPATH": os.getcwd()}
    inherited = {**os.environ, **own}
    inherited.pop("PYTHONDONTWRITEBYTECODE", None)
    return inherited


def _own(name):
    """A path in the directory that only this run has."""
    return pathlib.Path(os.environ["TMPDIR"], name)


def _parts(groups):
    """The groups that ctest runs, and those that pytest runs."""
    ctest = [group for group in groups if group in command_line.CTEST_GROUPS]
    return ctest, [group for group in groups if group not in ctest]


def show_list(preset, groups, name):
    """Prints the names of a build's tests. How many there are."""
    ctest, pytest = _parts(groups)
    names = []
    if ctest:
        shown = _output(_ctest(preset, ctest, name, "--show-only"))
        names += re.findall(r"^ *Test +#\d+: (.*)$", shown, re.MULTILINE)
    if pytest:
        shown = _output(_pytest(preset, pytest, name, "--collect-only"))
        names += re.findall(r"^\S+\.py::.*$", shown, re.MULTILINE)
    print(*names, sep="\n")
    return len(names)


def _output(command):
    listing = processes.start(command, stdout=subprocess.PIPE, text=True, env=environment())
    return listing.communicate()[0]


class Suite:
    def __init__(self, jobs):
        self._jobs = str(jobs)
        self.tests = 0
        self.failed = []

    def run(self, preset, groups, name=None):
        """Runs a build's tests of these groups, those with such a name."""
        print(f"Testing {preset}", flush=True)
        before = self.tests + len(self.failed)
        ctest, pytest = _parts(groups)
        if ctest:
            command = _ctest(preset, ctest, name, "--parallel", self._jobs, "--output-on-failure")
            self._run(preset, "ctest", command, "--output-junit")
        if pytest:
            # A run that a test starts has its own: two runs share nothing but what they build.
            captures = _own(f"{preset}-captures")
            chosen = _pytest(preset, pytest, name, "--captures", captures)
            # Made if there are tests that no other test may run beside.
            alone = _own(f"{preset}-alone")
            beside = ["--beside", alone, "--numprocesses", self._jobs, "--dist", "loadgroup"]
            self._run(preset, "pytest", [*chosen, *beside], "--junit-xml")
            if alone.exists():
                self._run(
                    preset, "pytest-alone", [*chosen, "-m", "alone and not whole"], "--junit-xml"
                )
            self._dissect(preset, captures)
        if name is None and self.tests + len(self.failed) == before:
            self.failed.append(f"no test of {preset} is meant")

    def _run(self, preset, program, command, option):
        results = _own(f"{preset}-{program}.xml")
        running = processes.start(
            [*command, option, results],
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            env=environment(),
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
        if processes.run(command, env=environment()) != 0:
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
