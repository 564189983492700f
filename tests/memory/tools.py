"""Tools that know which bytes of the daemon were never written. Such a byte is found when the
daemon decides by it, and when it is about to leave in a packet or in a line."""

import pathlib
import subprocess

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent

# Exit status of a program in which valgrind found something.
FOUND = 99


class Tool:
    """A way to run the daemon. `built` is the tool's own build of it, `settings` are those with
    which others are built."""

    wrapper = ()

    def build(self, source, directory):
        """Builds the daemon from other sources and returns its path."""
        for command in (
            ["cmake", "-G", "Ninja", "-S", source, "-B", directory, *self.settings],
            ["cmake", "--build", directory, "--target", "bonjour"],
        ):
            done = subprocess.run(command, capture_output=True, text=True)
            assert done.returncode == 0, done.stdout + done.stderr
        return directory / "bonjour"


class MemorySanitizer(Tool):
    """Ends the daemon at the first finding."""

    built = ROOT / "build/msan/bonjour"
    settings = (
        *("-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS=-O1", "-DBONJOUR_SANITIZE=memory"),
        "-DBONJOUR_HARDEN=OFF",
        *("-DCMAKE_C_COMPILER=clang", "-DCMAKE_CXX_COMPILER=clang++"),
    )

    def findings(self, daemon):
        errors = "\n".join(daemon.texts("stderr"))
        _, found, report = errors.partition("MemorySanitizer")
        return found + report


class Valgrind(Tool):
    """Runs the daemon as it ships."""

    built = ROOT / "build/release/bonjour"
    settings = ("-DCMAKE_BUILD_TYPE=MinSizeRel", "-DCMAKE_CXX_FLAGS=-g", "-DBONJOUR_HARDEN=ON")

    def __init__(self, log):
        self._log = log
        self.wrapper = (
            *("valgrind", "--track-origins=yes", f"--error-exitcode={FOUND}"),
            f"--log-file={log}",
        )

    def findings(self, daemon):
        report = self._log.read_text()
        return "" if "ERROR SUMMARY: 0 errors" in report else report
