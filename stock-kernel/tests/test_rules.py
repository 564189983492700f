"""What calls the script when printers come and go: mdev's line, and OpenWrt's hotplug script."""

import os
import stat

import pytest
from stock_system import STATUS_FILE, StockSystem

ACME = b"MFG:Acme;MDL:Jet;CMD:PCL;"
RECORD = "usblp3\nAcme\nJet\nPCL\n\n"
USB_CLASS_DRIVERS = 180
PRINTERS_GROUP = 7
NODE = "dev/usb/lp3"


@pytest.fixture
def printer(tmp_path):
    """The small system in which the kernel has just made the printer 3 and its node."""
    system = StockSystem(tmp_path / "root", "busybox")
    system.plug_in(3, ACME)
    (system.root / "sys/devices/printer3/usbmisc/lp3/dev").write_text("180:3\n")
    (system.root / "dev/usb").mkdir()
    os.mknod(system.root / NODE, stat.S_IFCHR, os.makedev(USB_CLASS_DRIVERS, 3))
    return system


def uevent(action, name="usb/lp3"):
    return {
        "ACTION": action,
        "DEVNAME": name,
        "DEVPATH": "/devices/printer3/usbmisc/lp3",
        "SUBSYSTEM": "usbmisc",
        "MAJOR": str(USB_CLASS_DRIVERS),
        "MINOR": "3",
    }


def mdev(system, action):
    conf = system.root / "usr/share/bonjour/mdev.conf"
    (system.root / "etc/mdev.conf").write_text(conf.read_text())
    done = system.run("/bin/mdev", env=uevent(action))
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def hotplug(system, action, name="usb/lp3"):
    script = "/usr/share/bonjour/hotplug-usbmisc"
    done = system.run("/bin/sh", "-c", f". {script}; echo next", env=uevent(action, name))
    assert (done.returncode, done.stdout, done.stderr) == (0, "next\n", "")


@pytest.mark.parametrize("event", [mdev, hotplug])
def test_printer_has_its_record_until_it_goes(printer, event):
    event(printer, "add")
    assert printer.status == RECORD
    printer.pull_out(3)
    event(printer, "remove")
    assert printer.status == ""


def test_mdev_leaves_the_node_where_it_is_for_the_group_of_printers(printer):
    mdev(printer, "add")
    made = (printer.root / NODE).stat()
    assert stat.S_ISCHR(made.st_mode)
    assert (made.st_uid, made.st_gid, made.st_mode & 0o777) == (0, PRINTERS_GROUP, 0o660)


def test_other_usb_devices_are_none_of_ours(printer):
    hotplug(printer, "add", "usb/hiddev0")
    assert not (printer.root / STATUS_FILE).exists()
