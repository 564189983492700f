"""A copy of the sources, out of the way, with its own builds, in which a mutant is judged."""

import contextlib
import os
import pathlib
import shutil
import signal
import subprocess
import threading
import xml.etree.ElementTree as ElementTree

# Quick to compile and to link, the daemon's code as optimised as firmware's. A mutant may well
# deserve a warning: that is not the question.
_COMMON = ["-G", "Ninja", "-DCMAKE_BUILD_TYPE=", "-DBONJOUR_HARDEN=OFF", "-DBONJOUR_TESTS=ON"]
_COMMON += ["-DBONJOUR_LAB=ON", "-DCMAKE_INTERPROCEDURAL_OPTIMIZATION=OFF"]
_PLAIN = ["-DCMAKE_CXX_FLAGS=-O2 -w"]
_SANITIZED = ["-DCMAKE_CXX_FLAGS=-O1 -w", "-DBONJOUR_SANITIZE=address,undefined"]
_DAEMONS = ["bonjour", "bonjour-standard"]
# The same date and time in every build.
_ENVIRONMENT = {
    **os.environ,
    "SOURCE_DATE_EPOCH": "1767225600",
    "PYTEST_DISABLE_PLUGIN_AUTOLOAD": "1",
    "PYTHONDONTWRITEBYTECODE": "1",
}
# A mutant may print or compute endlessly: what a process gets, in bytes and seconds.
_LIMITS = [f"--fsize={1 << 28}", "--core=0"]
_BUILD_CPU = _LAB_CPU = 120
_UNIT_CPU = 30
_BUILD_SECONDS = 1800
_UNIT_SECONDS = 600
_LAB_SECONDS = 900
# Tests of one mutant in the lab at a time; they mostly wait.
_LAB_JOBS = 3 * os.cpu_count()
_TOO_LONG = (124, 137)
_NO_TESTS = 5
_PLUGINS = [f"-p{name}" for name in ("pytest_timeout", "xdist.plugin", "no:cacheprovider")]


class Failure(Exception):
    """Something failed with the sources as they are."""


_running = set()
_ended = threading.Event()


def end_all():
    """Ends what is running in any scratch copy, and lets nothing more start."""
    _ended.set()
    for process in list(_running):
        process.terminate()


class Build:
    def __init__(self, source, directory, options):
        self._source = source
        self._directory = directory
        self._results = directory / "results.xml"
        self._options = options

    def make(self, *targets):
        """Whether it could be built."""
        if not (self._directory / "build.ninja").exists():
            configure = ["cmake", "-S", self._source, "-B", self._directory]
            command = [*configure, *_COMMON, *self._options]
            status, output = self._run(command, _BUILD_CPU, _BUILD_SECONDS)
            if status != 0:
                raise Failure(f"{self._directory} can't be configured:\n{output}")
        ninja = ["ninja", "-j2", "-C", self._directory, *targets]
        status, self.output = self._run(ninja, _BUILD_CPU, _BUILD_SECONDS)
        return status == 0

    def test_units(self, pattern):
        """The test that fails, of the unit tests whose name matches, or None."""
        labels = ["--label-regex", "^(unit|simulation)$"]
        chosen = [*labels, "--tests-regex", pattern, "--no-tests=error"]
        how = ["--parallel", "4", "--stop-on-failure", "--output-junit", self._results]
        ctest = ["ctest", "--test-dir", self._directory, *chosen, *how]
        return self._judge(ctest, _UNIT_CPU, _UNIT_SECONDS)

    def test_in_lab(self, folders):
        """The same for the tests of these folders."""
        environment = {
            "BONJOUR": str(self._directory / "bonjour"),
            "BONJOUR_USBLP_DEVICE": str(self._directory / "lab/usblp_device"),
        }
        pytest = ["/usr/bin/python3", "-m", "pytest", "-xq", *_PLUGINS, *folders]
        beside = ["-m", "not alone and not whole", "-n", str(_LAB_JOBS)]
        for chosen in (beside, ["-m", "alone"]):
            command = [*pytest, *chosen, f"--junit-xml={self._results}"]
            failed = self._judge(command, _LAB_CPU, _LAB_SECONDS, **environment)
            if failed:
                return failed
        return None

    def _judge(self, command, cpu, bound, **environment):
        """The name of a test that failed, None when none did."""
        self._results.unlink(missing_ok=True)
        status, output = self._run(command, cpu, bound, **environment)
        if status in (0, _NO_TESTS):
            return None
        if status in _TOO_LONG:
            return "no end"
        if self._results.exists():
            for case in ElementTree.parse(self._results).iter("testcase"):
                if case.find("failure") is not None or case.find("error") is not None:
                    return case.get("name")
        raise Failure(f"the tests can't be run:\n{output}")

    def _run(self, command, cpu, bound, **environment):
        """The exit status, and what it printed; the whole group is ended beyond `bound` seconds."""
        if _ended.is_set():
            raise Failure("was ended")
        timeout = ["timeout", "--kill-after=30", str(bound)]
        process = subprocess.Popen(
            [*timeout, "prlimit", f"--cpu={cpu}", *_LIMITS, *command],
            cwd=self._source,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            errors="replace",
            env={**_ENVIRONMENT, **environment},
        )
        _running.add(process)
        output, _ = process.communicate()
        _running.discard(process)
        with contextlib.suppress(ProcessLookupError):
            os.killpg(process.pid, signal.SIGKILL)
        return process.returncode, output

    def objects(self):
        """The compiled form of each source file of both daemons."""
        return {
            path: path.read_bytes() for path in self._directory.glob("**/bonjour_*.dir/**/*.cpp.o")
        }


class Scratch:
    def __init__(self, root, directory):
        self._root = root
        self._source = directory / "source"
        self._plain = Build(self._source, directory / "plain", _PLAIN)
        self._sanitized = Build(self._source, directory / "sanitized", _SANITIZED)
        # The kinds of tests that passed without a mutant.
        self._sound = set()
        self._objects = None

    def prepare(self):
        self._copy()
        if not self._plain.make(*_DAEMONS):
            raise Failure(f"the sources can't be built:\n{self._plain.output}")
        self._objects = self._plain.objects()

    def _copy(self):
        """Brings the copy up to date; a file that is the same keeps its time."""
        command = ["git", "-C", self._root, "ls-files", "-co", "--exclude-standard", "-z"]
        listed = subprocess.run(command, check=True, capture_output=True, text=True).stdout
        names = {name for name in listed.split("\0") if name and (self._root / name).is_file()}
        for name in names:
            here, there = self._root / name, self._source / name
            if not there.exists() or here.read_bytes() != there.read_bytes():
                there.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(here, there)
        for path in list(self._source.rglob("*")):
            if path.is_file() and str(path.relative_to(self._source)) not in names:
                path.unlink()

    def _modules(self, folder, pattern="*"):
        paths = (self._source / "tests").glob(f"{folder}/{pattern}_test.cpp")
        return sorted(
            f"{path.parent.name}/{path.name.removesuffix('_test.cpp')}" for path in paths
        )

    def _own_modules(self, mutant):
        """The modules with tests: the mutant's own, or all of its folder if it has none."""
        folder, module = pathlib.PurePath(mutant.path).with_suffix("").parts
        own = self._modules(folder, module) + self._modules(folder, f"{module}_*")
        return own or self._modules(folder)

    def _modules_above(self, folder):
        """All modules with tests that may depend on a folder."""
        standard = self._modules("standard")
        return {"standard": standard, "base": self._modules("*")}.get(
            folder, [module for module in self._modules("*") if module not in standard]
        )

    def _test_modules(self, build, modules):
        if not build.make(*[f"{module.replace('/', '_')}_test" for module in modules]):
            return "the build of its tests"
        return build.test_units(f"^({'|'.join(modules)}):")

    def _test_in_lab(self, folder):
        if not self._plain.make("lab_tests"):
            return "the build of the daemon"
        tests = ["standard_link"] if folder == "standard" else ["system", "faults"]
        return self._plain.test_in_lab([f"tests/{name}" for name in tests])

    def judge(self, mutant, in_lab):
        """The verdict and, for a mutant that is killed, what noticed it."""
        folder = mutant.path.split("/")[0]
        modules, above = self._own_modules(mutant), self._modules_above(folder)
        # A read or a write beyond an object is an error even when it changes no result.
        tests = [
            (f"own {modules}", lambda: self._test_modules(self._plain, modules)),
            (f"above {folder}", lambda: self._test_modules(self._plain, above)),
            (f"sanitized {modules}", lambda: self._test_modules(self._sanitized, modules)),
        ]
        if in_lab:
            tests.append((f"lab {folder}", lambda: self._test_in_lab(folder)))
        path = self._source / mutant.path
        original = path.read_bytes()
        try:
            path.write_bytes(mutant.apply(original))
            if not self._plain.make(*_DAEMONS):
                return "invalid", ""
            if self._plain.objects() == self._objects:
                return "equivalent", ""
            for kind, test in tests:
                if kind not in self._sound:
                    path.write_bytes(original)
                    failed = test()
                    if failed:
                        raise Failure(f"fails without a mutant: {failed}")
                    self._sound.add(kind)
                    path.write_bytes(mutant.apply(original))
                noticed = test()
                if noticed:
                    return "killed", f"{kind.split()[0]}: {noticed}"
            return "survived", ""
        finally:
            path.write_bytes(original)
