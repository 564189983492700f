"""A small root file system with the installed bridge to a stock kernel, and a sysfs made by hand.

Of programs it has BusyBox alone, as on a router, or dash and the tools of a minimal Debian.
"""

import os
import pathlib
import re
import shutil
import subprocess

BUSYBOX = pathlib.Path("/bin/busybox")
CHROOT = "/usr/sbin/chroot"
STATUS_FILE = "var/run/bonjour/printer_status"

_APPLETS = ["awk", "cat", "env", "ln", "mdev", "mkdir", "mount", "mv", "rm", "sh", "sleep"]
_APPLETS += ["unshare"]
# Under these names, and where they are found on Debian.
_DEBIAN = {name: f"/usr/bin/{name}" for name in _APPLETS if name != "mdev"}
_DEBIAN |= {"awk": "/usr/bin/mawk", "sh": "/usr/bin/dash"}

# Keeps what it is given to log.
_LOGGER = """#!/bin/sh
while read -r line; do echo "$2: $line" >> /log; done
"""


class StockSystem:
    def __init__(self, root, build, programs):
        """Made in `root`, a new directory, of what is installed from `build`; `programs` is
        "busybox" or "debian"."""
        self.root = root
        directories = ["bin", "dev", "etc", "proc", "sys/class/usbmisc", "sys/devices", "var/run"]
        for directory in directories:
            (root / directory).mkdir(parents=True)
        if programs == "busybox":
            shutil.copy(BUSYBOX, root / "bin")
            for applet in _APPLETS:
                (root / "bin" / applet).symlink_to("busybox")
        else:
            for name, path in _DEBIAN.items():
                shutil.copy(path, root / "bin" / name)
                self.copy_libraries(path)
        self.replace_program("logger", _LOGGER)
        command = ["cmake", "--install", build, "--prefix", "/usr", "--component", "stock-kernel"]
        installing = {**os.environ, "DESTDIR": str(root)}
        subprocess.run(command, env=installing, check=True, stdout=subprocess.DEVNULL)

    def copy_libraries(self, program):
        listed = subprocess.run(["ldd", program], capture_output=True, text=True, check=True)
        for library in re.findall(r"(/\S+) \(0x", listed.stdout):
            copy = self.root / library.lstrip("/")
            copy.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(library, copy)

    def replace_program(self, name, script):
        """Puts a shell script in place of a program."""
        path = self.root / "bin" / name
        path.unlink(missing_ok=True)
        path.write_text(script)
        path.chmod(0o755)

    # Printers

    def plug_in(self, port, device_id=b""):
        """Shows a printer in sysfs, in one step. Without its attribute if `device_id` is None."""
        interface = self.root / f"sys/devices/printer{port}"
        (interface / f"usbmisc/lp{port}").mkdir(parents=True)
        (interface / f"usbmisc/lp{port}/device").symlink_to("../..")
        if device_id is not None:
            (interface / "ieee1284_id").write_bytes(device_id)
        target = f"../../devices/printer{port}/usbmisc/lp{port}"
        (self.root / f"sys/class/usbmisc/lp{port}").symlink_to(target)

    def pull_out(self, port):
        (self.root / f"sys/class/usbmisc/lp{port}").unlink()
        shutil.rmtree(self.root / f"sys/devices/printer{port}")

    # Programs in it

    def command(self, *words):
        return [CHROOT, self.root, *words]

    def run(self, *words, **options):
        return subprocess.run(self.command(*words), capture_output=True, text=True, **options)

    def update(self):
        done = self.run("/usr/sbin/bonjour-printers", "update")
        assert (done.returncode, done.stdout, done.stderr) == (0, "", "")

    @property
    def status(self):
        return (self.root / STATUS_FILE).read_text()

    @property
    def log(self):
        path = self.root / "log"
        return path.read_text().splitlines() if path.exists() else []
