"""A router's small root file system: the shell, BusyBox, the C library, and what is installed."""

import contextlib
import os
import pathlib
import re
import shutil
import stat
import subprocess

from lab.daemon import binary
from lab.waiting import PATIENCE, wait_until

CHROOT = "/usr/sbin/chroot"
SCRIPT = "/etc/init.d/bonjour"
DAEMON = "usr/sbin/bonjour"
DEFAULTS = "etc/default/bonjour"
PIDFILE = "var/run/bonjour.pid"

_APPLETS = "awk cat ln logger mkdir mkfifo mv readlink rm setsid sleep syslogd".split()
_BOUND = 20.0


def install(target, *options, prefix="/usr", build=None):
    """`cmake --install` into `target`, of the build of the daemon under test or of another one."""
    subprocess.run(
        ["env", f"DESTDIR={target}", "cmake", "--install", build or binary().parent]
        + ["--prefix", prefix, "--strip", *options],
        check=True,
        stdout=subprocess.DEVNULL,
    )


def files(root):
    """The modes of the files, and where the symbolic links lead, by name."""
    found = {}
    for path in root.rglob("*"):
        name = str(path.relative_to(root))
        if path.is_symlink():
            found[name] = os.readlink(path)
        elif path.is_file():
            found[name] = stat.S_IMODE(path.stat().st_mode)
    return found


def write_program(path, text):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text)
    path.chmod(0o755)


def copy_program(program, root, to):
    """Copies a program, and the libraries that it is linked with, into `root`."""
    (root / to).parent.mkdir(parents=True, exist_ok=True)
    shutil.copy(program, root / to)
    copy_libraries(program, root)


def copy_libraries(program, root):
    listed = subprocess.run(["ldd", program], capture_output=True, text=True, check=False)
    for library in re.findall(r"(/\S+) \(0x", listed.stdout):
        copy = root / library.lstrip("/")
        copy.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(library, copy)


def lay_out(root, shell="busybox"):
    """Makes everything in `root` but the project's own files. BusyBox's shell finds all of its
    applets by itself, the others those that are linked in bin."""
    for directory in ("bin", "dev", "proc", "tmp", "var/run", "var/log"):
        (root / directory).mkdir(parents=True, exist_ok=True)
    copy_program("/bin/busybox", root, "bin/busybox")
    # Routers have BusyBox's; Debian's BusyBox has none.
    copy_program("/usr/bin/flock", root, "bin/flock")
    for applet in _APPLETS:
        (root / "bin" / applet).symlink_to("busybox")
    if shell != "busybox":
        copy_program(f"/bin/{shell}", root, f"bin/{shell}")
    (root / "bin/sh").symlink_to(shell)


class SmallSystem:
    """A root in use, in a sandbox and a network."""

    def __init__(self, root, sandbox, network=None):
        self.root = root
        self.sandbox = sandbox
        self._network = network
        mounts = f"mount --rbind /proc {root}/proc && mount --rbind /dev {root}/dev"
        assert sandbox.spawn(["sh", "-c", mounts]).wait() == 0

    def spawn(self, *command, **options):
        return self.sandbox.spawn([CHROOT, self.root, *command], network=self._network, **options)

    def run(self, *command):
        """Runs a command to its end, which no process that it leaves behind delays."""
        started = self.spawn(
            *command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE
        )
        out, err = started.communicate(timeout=_BOUND * PATIENCE)
        return subprocess.CompletedProcess(command, started.returncode, out.decode(), err.decode())

    def sh(self, line):
        return self.run("/bin/sh", "-c", line)

    def script(self, action, path=SCRIPT):
        """The exit status of the init script, called with this action."""
        return self.run(path, action).returncode

    @property
    def running(self):
        return self.script("status") == 0

    @property
    def pid(self):
        """The daemon's process id, as the init script has noted it."""
        return int((self.root / PIDFILE).read_text())

    def processes(self):
        """The command lines of what runs, by process id, without what holds the sandbox."""
        found = {}
        for entry in self.sandbox.path("/proc/.kernel").iterdir():
            if entry.name.isdigit() and entry.name != "1":
                with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                    words = (entry / "cmdline").read_text().split("\0")[:-1]
                    # One that has ended and was not waited for has none.
                    if words:
                        found[int(entry.name)] = words
        return found

    def programs(self):
        """The names of what runs."""
        return sorted(pathlib.Path(words[0]).name for words in self.processes().values())

    def of_process(self, pid, file):
        """This file of a process's directory in /proc."""
        return self.sandbox.path(f"/proc/.kernel/{pid}/{file}")

    def wait_until(self, holds, what):
        wait_until(holds, what, _BOUND)
