"""A small root file system with the installed bridge to a stock kernel, and a sysfs made by hand.

Of programs it has BusyBox alone, as on a router, or dash and the tools of a minimal Debian. Time
passes in it only while a program sleeps, and then at once.
"""

import os
import shutil
import subprocess

from small_system import CHROOT, copy_program, install, write_program

from lab.daemon import stock_build
from lab.waiting import PATIENCE

STATUS_FILE = "var/run/bonjour/printer_status"
KERNELS = "/proc/printer_status"
PRINTERS = "/usr/sbin/bonjour-printers"

_APPLETS = "awk cat env ln mdev mkdir mv rm setsid sh sleep".split()
# Under these names, and where they are found on Debian.
_DEBIAN = {name: f"/usr/bin/{name}" for name in _APPLETS if name != "mdev"}
_DEBIAN |= {"awk": "/usr/bin/mawk", "sh": "/usr/bin/dash"}

# Keeps what it is given to log.
_LOGGER = """#!/bin/sh
while read -r line; do echo "$2: $line" >> /log; done
"""
# Notes what the status file says during that second.
_SLEEP = f"""#!/bin/sh
echo "slept $*: $(cat /{STATUS_FILE})" >> /slept
read -r uptime _ < /proc/uptime
echo "$((${{uptime%.*}} + $1)).${{uptime#*.}} 9.99" > /proc/uptime.$$
mv /proc/uptime.$$ /proc/uptime
"""


class StockSystem:
    def __init__(self, root, programs):
        """Made in `root`, a new directory; `programs` is "busybox" or "debian"."""
        self.root = root
        for directory in ("bin", "dev", "etc", "proc", "sys/class/usbmisc", "sys/devices"):
            (root / directory).mkdir(parents=True)
        if programs == "busybox":
            copy_program("/bin/busybox", root, "real/busybox")
            for applet in _APPLETS:
                (root / "real" / applet).symlink_to("busybox")
        else:
            for name, path in _DEBIAN.items():
                copy_program(path, root, f"real/{name}")
        for program in (root / "real").iterdir():
            (root / "bin" / program.name).symlink_to(f"/real/{program.name}")
        self.replace_program("logger", _LOGGER)
        self.replace_program("sleep", _SLEEP)
        self.set_uptime("1000.07")
        install(root, "--component", "stock-kernel", build=stock_build())

    def replace_program(self, name, script):
        """Puts a shell script in place of a program, which stays in /real."""
        (self.root / "bin" / name).unlink(missing_ok=True)
        write_program(self.root / "bin" / name, script)

    def set_uptime(self, seconds):
        (self.root / "proc/uptime").write_text(f"{seconds} 9.99\n")

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
        options |= {"capture_output": True, "text": True, "timeout": 10 * PATIENCE}
        return subprocess.run(self.command(*words), **options)

    def call(self, word):
        done = self.run(PRINTERS, word)
        assert (done.returncode, done.stdout, done.stderr) == (0, "", "")

    def update(self):
        self.call("update")

    def settle(self):
        self.call("settle")

    @property
    def status(self):
        return (self.root / STATUS_FILE).read_text()

    @property
    def files(self):
        """What lies in the status file's directory."""
        return sorted(os.listdir((self.root / STATUS_FILE).parent))

    def lines(self, name):
        path = self.root / name
        return path.read_text().splitlines() if path.exists() else []

    @property
    def log(self):
        return self.lines("log")

    @property
    def slept(self):
        """What was slept through: a line a call, with the status file's text at its end."""
        return self.lines("slept")
