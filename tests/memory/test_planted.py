"""The tools notice a byte that leaves without having been written: each is shown one."""

import contextlib
import shutil
import signal
import subprocess

import pytest
from lab.waiting import TimedOut
from tools import ROOT

# What is changed in which source: one of the bytes that leave is one that nobody wrote.
PLANTS = {
    "packet": (
        "records/compose.cpp",
        ("  memset(packet.bytes, 0, static_cast<size_t>(packet.capacity));\n", ""),
    ),
    "line": ("base/log.cpp", ("line[length++] = '\\n';", "line[++length] = '\\n'; ++length;")),
}


def copy_sources(target):
    """The files of this tree, but for what is built."""
    command = ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"]
    listed = subprocess.run(command, cwd=ROOT, check=True, capture_output=True, text=True)
    for name in filter(None, listed.stdout.split("\0")):
        (target / name).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(ROOT / name, target / name)


@pytest.mark.parametrize("plant", PLANTS.values(), ids=PLANTS.keys())
def test_byte_that_was_never_written_is_noticed_when_it_leaves(
    lab, router, tool, plant, tmp_path, monkeypatch
):
    # One of these packets is a byte too long.
    lab.allow_malformed(lambda packet: True)
    source, *changes = plant
    copy_sources(tmp_path / "sources")
    path = tmp_path / "sources" / source
    text = path.read_text()
    for before, after in changes:
        assert text.count(before) == 1, f"{source} does not hold {before!r} once"
        text = text.replace(before, after)
    path.write_text(text)
    monkeypatch.setenv("BONJOUR", str(tool.build(tmp_path / "sources", tmp_path / "build")))
    daemon = router.start(ready=False, wrapper=tool.wrapper)
    # Where the finding ends the daemon, the banner never comes.
    with contextlib.suppress(TimedOut):
        router.wait_for_banner()
        daemon.signal(signal.SIGTERM)
    daemon.wait_for_exit()
    assert "uninit" in tool.findings(daemon).lower()
