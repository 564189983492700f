"""Runs of ctest and of pytest, two a build, that count as one."""

import os
import pathlib
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
    """That of programs written in Python, pytest among them."""
    return {**os.environ, "PYTEST_DISABLE_PLUGIN_AUTOLOAD": "1", "PYTHONPATH": os.getcwd()}


def _own(name):
    """A path in the directory that only this run has."""
    return pathlib.Path(os.environ["TMPDIR"], name)


class Suite:
    def __init__(self, jobs):
        self._jobs = str(jobs)
        self.tests = 0
        self.failed = []

    def run(self, preset, groups, name=None):
        """Runs a build's tests of these groups, those with such a name."""
        print(f"Testing {preset}", flush=True)
        before = self.tests + len(self.failed)
        ctest = [group for group in groups if group in command_line.CTEST_GROUPS]
        pytest = [command_line.folder(group) for group in groups if group not in ctest]
        if ctest:
            self._run_ctest(preset, ctest, name or ".")
        if pytest:
            self._run_pytest(preset, pytest, name or "")
        if self.tests + len(self.failed) == before:
            self.failed.append(f"no test of {preset} is meant")

    def _run_ctest(self, preset, labels, name):
        chosen = ["--label-regex", f"^({'|'.join(labels)})$", "--tests-regex", name]
        how = ["--parallel", self._jobs, "--output-on-failure"]
        ctest = ["ctest", "--test-dir", f"build/{preset}", *chosen, *how]
        self._run(preset, "ctest", ctest, "--output-junit")

    def _run_pytest(self, preset, folders, name):
        # A run that a test starts has its own: two runs share nothing but what they build.
        captures = _own(f"{preset}-captures")
        chosen = [f"--preset={preset}", "--name", name, "-q", "--captures", captures, *folders]
        pytest = [PYTHON, "-m", "pytest", *_PLUGINS, *chosen]
        beside = ["-m", "not alone and not whole", "-n", self._jobs, "--dist", "loadgroup"]
        self._run(preset, "pytest", [*pytest, *beside], "--junit-xml")
        # No other test may run beside these.
        by_itself = [*pytest, "-m", "alone and not whole"]
        self._run(preset, "pytest-alone", by_itself, "--junit-xml")
        self._dissect(preset, captures)

    def _run(self, preset, program, command, option):
        results = _own(f"{preset}-{program}.xml")
        running = processes.start(
            [*_steady(preset), *command, option, results],
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
        if self.failed:
            print("\nThe following tests FAILED:", *self.failed, sep="\n  ")
        passed = max(self.tests - len(self.failed), 0)
        share = 100 * passed // max(self.tests, 1)
        print(f"\n{share}% tests passed, {len(self.failed)} tests failed out of {self.tests}")
        return 1 if self.failed or not self.tests else 0
