"""The tools that know which bytes of the daemon were never written: such a byte is found when the
daemon decides by it, and when it is about to leave in a packet or in a line."""

import pathlib

import pytest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent


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
        self.use(ROOT)

    def use(self, root):
        """Lets the lab start the daemon that was built there."""
        self._environment.setenv("BONJOUR", f"{root}/build/{self.preset}/bonjour")

    def findings(self, daemon):
        if not self.wrapper:
            return "".join("\n".join(daemon.texts("stderr")).partition("MemorySanitizer")[1:])
        report = self._log.read_text()
        return "" if "ERROR SUMMARY: 0 errors" in report else report


@pytest.fixture(params=["msan", "release"], ids=["MemorySanitizer", "valgrind"])
def tool(request, tmp_path, monkeypatch):
    return Tool(request.param, tmp_path / "report", monkeypatch)
