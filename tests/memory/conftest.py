"""The tools that know which bytes of the daemon were never written: such a byte is found when the
daemon decides by it, and when it is about to leave in a packet or in a line."""

import pathlib
import subprocess

import pytest

BUILDS = pathlib.Path(__file__).resolve().parent.parent.parent / "build"
# With which the daemon is built from other sources.
SETTINGS = {
    "msan": "-DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS=-O1 -DBONJOUR_SANITIZE=memory"
    " -DBONJOUR_HARDEN=OFF -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++",
    "release": "-DCMAKE_BUILD_TYPE=MinSizeRel -DCMAKE_CXX_FLAGS=-g",
}


class Tool:
    """MemorySanitizer, which ends the daemon at the first finding, on the build msan; or valgrind,
    which runs the daemon as it ships."""

    def __init__(self, preset, log, monkeypatch):
        self.preset = preset
        self.wrapper = ()
        self._log = log
        self._environment = monkeypatch
        if preset == "release":
            self.wrapper = ("valgrind", "--track-origins=yes", f"--log-file={log}")
        self.run(BUILDS / preset / "bonjour")

    def run(self, daemon):
        """Lets the lab start this daemon."""
        self._environment.setenv("BONJOUR", str(daemon))

    def build(self, source, directory):
        """Lets the lab start the daemon built from other sources."""
        settings = SETTINGS[self.preset].split()
        for command in (
            ["cmake", "-G", "Ninja", "-S", source, "-B", directory, *settings],
            ["cmake", "--build", directory, "--target", "bonjour"],
        ):
            subprocess.run(command, check=True, capture_output=True)
        self.run(directory / "bonjour")

    def findings(self, daemon):
        if not self.wrapper:
            return "".join("\n".join(daemon.texts("stderr")).partition("MemorySanitizer")[1:])
        report = self._log.read_text()
        return "" if "ERROR SUMMARY: 0 errors" in report else report


@pytest.fixture(params=["msan", "release"], ids=["MemorySanitizer", "valgrind"])
def tool(request, tmp_path, monkeypatch):
    return Tool(request.param, tmp_path / "report", monkeypatch)
