"""A copy of the sources, out of the way, with its own builds, in which a mutant is judged."""

import contextlib
import os
import pathlib
import re
import shutil
import signal
import subprocess
import time

# Quick to compile and to link. A mutant may well deserve a warning: that is not the question.
_TESTS = ["-DBONJOUR_TESTS=ON", "-DBONJOUR_LAB=ON"]
_PLAIN = ["-DCMAKE_CXX_FLAGS=-O1 -w", *_TESTS]
_SANITIZED = ["-DCMAKE_CXX_FLAGS=-O1 -w", "-DBONJOUR_SANITIZE=address,undefined", *_TESTS]
# Like the firmware's, as far as the code generated from a source file is concerned.
_OPTIMISED = ["-DCMAKE_CXX_FLAGS=-O2 -w"]
_COMMON = ["-G", "Ninja", "-DCMAKE_BUILD_TYPE=", "-DBONJOUR_HARDEN=OFF"]

# A mutant may print or compute endlessly: the seconds that a process gets.
_LIMITS = ["prlimit", f"--fsize={1 << 28}", "--core=0"]
_BUILD_CPU = _LAB_CPU = 120
_UNIT_CPU = 5
_UNITS = ["-L", "^unit$", "-j", "4"]  # they wait a lot
# The same date and time in every build.
_ENVIRONMENT = {
    **os.environ,
    "SOURCE_DATE_EPOCH": "1767225600",
    "ASAN_OPTIONS": "detect_leaks=1:abort_on_error=0",
    "CTEST_OUTPUT_ON_FAILURE": "1",
}
_BUILD_SECONDS = 900
_PYTEST = ["/usr/bin/python3", "-B", "-m", "pytest", "-x", "-q", "-p", "no:cacheprovider"]
_LAB = ["tests/system", "tests/faults"]
_FAILED = re.compile(
    r"tests FAILED:\n\s*\d+ - (.*) \(.*\)\n|^(?:FAILED|ERROR) (\S.*?)(?: - .*)?$", re.MULTILINE
)


class Failure(Exception):
    """Something failed with the sources as they are."""


def _end_group(process):
    """Lets the group's processes clean up, then ends those that are left."""
    for number, patience in ((signal.SIGTERM, 20), (signal.SIGKILL, 5)):
        with contextlib.suppress(ProcessLookupError):
            os.killpg(process.pid, number)
        deadline = time.monotonic() + patience
        while time.monotonic() < deadline:
            process.poll()
            try:
                os.killpg(process.pid, 0)
            except ProcessLookupError:
                return
            time.sleep(0.05)


_running = set()


def end_all():
    """Ends what is running in any scratch copy."""
    for process in list(_running):
        _end_group(process)


def _run(command, bound, **options):
    """The exit status, None beyond `bound` seconds, and what it printed."""
    process = subprocess.Popen(
        command,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        env={**_ENVIRONMENT, **options.pop("environment", {})},
        start_new_session=True,
        **options,
    )
    _running.add(process)
    try:
        output, _ = process.communicate(timeout=bound)
        return process.returncode, output.decode(errors="replace")
    except subprocess.TimeoutExpired:
        return None, ""
    finally:
        _end_group(process)
        _running.discard(process)
        process.stdout.close()
        process.wait()


class Build:
    def __init__(self, source, directory, options):
        self._source = source
        self._directory = directory
        self._options = options

    def _run(self, cpu, bound, *command, **options):
        return _run([*_LIMITS, f"--cpu={cpu}", "--", *command], bound, **options)

    def make(self, *targets):
        """Whether it could be built."""
        if not (self._directory / "build.ninja").exists():
            configure = ["cmake", "-S", self._source, "-B", self._directory]
            status, output = _run([*configure, *_COMMON, *self._options], _BUILD_SECONDS)
            if status != 0:
                raise Failure(f"{self._directory} can't be configured:\n{output}")
        ninja = ["ninja", "-j1", "-C", self._directory, *targets]
        status, self.output = self._run(_BUILD_CPU, _BUILD_SECONDS, *ninja)
        return status == 0

    def test(self, cpu, bound, *selection):
        """What failed: None when nothing did, else the name of a test."""
        ctest = ["ctest", "--test-dir", self._directory, "--stop-on-failure", "--no-tests=error"]
        return self._judge(bound, *self._run(cpu, bound, *ctest, *selection))

    def test_in_lab(self, bound, parallel):
        """The same for the tests in the lab, so many at a time."""
        environment = {
            "BONJOUR": str(self._directory / "bonjour"),
            "BONJOUR_USBLP_DEVICE": str(self._directory / "lab/usblp_device"),
        }
        for chosen in (["-m", "not alone", "-n", parallel], ["-m", "alone"]):
            command = [*_PYTEST, *chosen, *_LAB]
            how = {"cwd": self._source, "environment": environment}
            failed = self._judge(bound, *self._run(_LAB_CPU, bound, *command, **how))
            if failed:
                return failed
        return None

    def _judge(self, bound, status, output):
        self.output = output
        if status == 0:
            return None
        if status is None:
            return f"no end within {bound:.0f} s"
        failed = _FAILED.search(output)
        if not failed:
            raise Failure(f"the tests can't be run: {output}")
        return failed[1] or failed[2]

    def objects(self):
        """The compiled form of each source file of the daemon."""
        return {
            path.relative_to(self._directory): path.read_bytes()
            for path in self._directory.glob("CMakeFiles/bonjour*.dir/**/*.o")
        }


class Scratch:
    def __init__(self, root, directory, parallel):
        """`parallel` is the number of tests in the lab at a time. To be prepared before use."""
        self._root = root
        self._source = directory / "source"
        self._parallel = str(parallel)
        self._plain = Build(self._source, directory / "plain", _PLAIN)
        self._optimised = Build(self._source, directory / "optimised", _OPTIMISED)
        self._sanitized = Build(self._source, directory / "sanitized", _SANITIZED)
        self._sanitized_modules = None
        self._objects = None
        self._unit_bound = None
        self.lab_bound = None

    def prepare(self):
        """Copies the sources and builds them; the unit tests pass on them."""
        self._copy()
        self._make_all(self._plain)
        self._make_all(self._optimised)
        self._objects = self._optimised.objects()
        start = time.monotonic()
        self._check(self._plain.test(_UNIT_CPU, 600, *_UNITS))
        self._unit_bound = 15 + 5 * (time.monotonic() - start)

    def _copy(self):
        """Brings the copy up to date; a file that is the same keeps its time."""
        command = ["git", "-C", self._root, "ls-files", "-co", "--exclude-standard", "-z"]
        listed = subprocess.run(command, check=True, capture_output=True).stdout.decode()
        names = {name for name in listed.split("\0") if name and (self._root / name).is_file()}
        for name in names:
            here, there = self._root / name, self._source / name
            if not there.exists() or here.read_bytes() != there.read_bytes():
                there.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(here, there)
        for path in list(self._source.rglob("*")):
            if path.is_file() and str(path.relative_to(self._source)) not in names:
                path.unlink()

    def _make_all(self, build):
        if not build.make():
            raise Failure(f"the sources can't be built:\n{build.output}")

    def _check(self, failed):
        if failed:
            raise Failure(f"fails without a mutant: {failed}\n{self._plain.output}")

    def check_lab(self):
        """The tests in the lab pass without a mutant. How long they may take with one."""
        self._make_all(self._plain)
        start = time.monotonic()
        self._check(self._plain.test_in_lab(1800, self._parallel))
        return 60 + 3 * (time.monotonic() - start)

    @contextlib.contextmanager
    def mutated(self, mutant):
        path = self._source / mutant.path
        original = path.read_bytes()
        path.write_bytes(mutant.apply(original))
        try:
            yield
        finally:
            path.write_bytes(original)

    def _modules_of(self, mutant):
        """The modules that have tests: the mutant's own, if it has any, and its folder's."""
        folder, module = pathlib.PurePath(mutant.path).with_suffix("").parts
        paths = sorted((self._source / "tests" / folder).glob("*_test.cpp"))
        tested = [f"{folder}/{path.name.removesuffix('_test.cpp')}" for path in paths]
        own = re.compile(f"{folder}/{module}(_.*)?")
        return [name for name in tested if own.fullmatch(name)], tested

    def _test_modules(self, build, modules):
        """The test of these modules that fails, or None."""
        if not build.make(*[f"{module.replace('/', '_')}_test" for module in modules]):
            return "the build of its test"
        selection = f"^({'|'.join(modules)}):"
        return build.test(_UNIT_CPU, self._unit_bound, *_UNITS, "-R", selection)

    def _test_others(self, modules):
        """The unit test that fails, or None: those of `modules` are asked first, then all."""
        failed = self._test_modules(self._plain, modules) if modules else None
        if failed:
            return failed
        if not self._plain.make():
            return "the build of the tests"
        return self._plain.test(_UNIT_CPU, self._unit_bound, *_UNITS)

    def _test_sanitized(self, mutant):
        """A read or a write beyond an object is an error even when it changes no result."""
        own, folder = self._modules_of(mutant)
        modules = own or folder
        if not modules:
            return None
        if modules != self._sanitized_modules:
            failed = self._test_modules(self._sanitized, modules)
            if failed:
                raise Failure(f"fails without a mutant: {failed}\n{self._sanitized.output}")
            self._sanitized_modules = modules
        with self.mutated(mutant):
            failed = self._test_modules(self._sanitized, modules)
        return failed and f"{failed} (sanitized)"

    def judge_by_units(self, mutant):
        """The verdict and, for a mutant that is killed, what noticed it."""
        with self.mutated(mutant):
            if not self._plain.make("bonjour"):
                return "invalid", ""
            own, folder = self._modules_of(mutant)
            noticed = self._test_modules(self._plain, own) if own else None
            if noticed:
                return "killed", noticed
            self._make_all(self._optimised)
            if self._optimised.objects() == self._objects:
                return "equivalent", ""
            noticed = self._test_others(folder)
            if noticed:
                return "killed", noticed
        noticed = self._test_sanitized(mutant)
        return ("killed", noticed) if noticed else ("survived", "")

    def judge_in_lab(self, mutant):
        """The same, by the tests that run the whole daemon."""
        with self.mutated(mutant):
            if not self._plain.make():
                return "killed", "the build of the tests"
            noticed = self._plain.test_in_lab(self.lab_bound, self._parallel)
            return ("killed", noticed) if noticed else ("survived", "")
