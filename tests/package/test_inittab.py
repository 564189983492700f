"""The lines of inittab that the page on firmware gives, with BusyBox init as the first process of a
process namespace."""

import os
import pathlib
import re
import signal
import subprocess

import pytest
from small_system import DAEMON, DEFAULTS, PIDFILE, SmallSystem, copy_program, install, lay_out

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
PAGE = ROOT / "docs/firmware.md"
PAUSE_SECONDS = 5


def documented_lines():
    lines = re.findall(r"^::\w+:.*bonjour.*\n", PAGE.read_text(), re.MULTILINE)
    assert lines
    return "".join(lines)


@pytest.fixture
def system(tmp_path, sandbox):
    root = tmp_path / "root"
    lay_out(root)
    install(root)
    copy_program("/bin/sleep", root, DAEMON)
    (root / "etc/inittab").write_text(documented_lines())
    return SmallSystem(root, sandbox)


@pytest.mark.seconds(10)
def test_documented_lines_respawn_the_daemon_and_stop_it_at_the_end(system):
    numbered = system.root / PIDFILE
    # This daemon ends by itself, at once.
    (system.root / DEFAULTS).write_text("MODEL=0\n")
    # Its root is a mount of its own, as every system's is.
    root = system.root
    mounts = f"mount --bind {root} {root} && mount -t proc proc {root}/proc"
    starting = f"{mounts} && exec chroot {root} busybox init"
    box = system.sandbox.spawn(
        ["unshare", "--mount", "--pid", "--fork", "--kill-child", "sh", "-c", starting],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.DEVNULL,
        stderr=subprocess.DEVNULL,
    )
    system.wait_until(lambda: numbered.exists() and numbered.read_text(), "the first daemon")
    begun = numbered.stat().st_mtime
    # The next one lasts.
    (system.root / DEFAULTS).write_text("MODEL=3600\n")
    system.wait_until(
        lambda: ["/usr/sbin/bonjour", "3600"] in system.processes().values(), "the second daemon"
    )
    assert numbered.stat().st_mtime - begun >= PAUSE_SECONDS
    (init,) = pathlib.Path(f"/proc/{box.pid}/task/{box.pid}/children").read_text().split()
    os.kill(int(init), signal.SIGUSR2)
    box.wait()
    assert not numbered.exists()
