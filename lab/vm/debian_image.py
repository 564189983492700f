"""A minimal Debian with systemd on a disk, and the daemon's Debian package in it, not installed."""

import pathlib
import shutil
import subprocess

from lab.vm.cpio import pack
from lab.vm.debian import RELEASE, mirror

_GUEST = pathlib.Path(__file__).with_name("guest") / "debian"
_PACKAGES = "systemd-sysv,udev,iproute2"
# Nobody reads them there.
_DISPENSABLE = ("usr/share/doc", "usr/share/locale", "usr/share/man", "var/cache/apt/archives")
# They take seconds of a CPU that is emulated.
_NOT_NEEDED = ("getty.target", "timers.target", "e2scrub_reap.service")
_DISK_MEGABYTES = 400
PACKAGE = "/root/bonjour.deb"


def make_disk(directory, network, package):
    """The disk image in `directory`, with a Debian that is downloaded the first time.
    `network` has the MAC and the ADDRESS of its bridge; `package` is found in it as PACKAGE."""
    root = directory / "root"
    ready = directory / "ready"
    if not ready.exists():
        shutil.rmtree(root, ignore_errors=True)
        directory.mkdir(parents=True, exist_ok=True)
        _debootstrap(root, directory / "debootstrap.log")
        ready.touch()
    _configure(root, network)
    shutil.copy(package, root / PACKAGE.lstrip("/"))
    disk = directory / "disk"
    disk.unlink(missing_ok=True)
    making = ["mke2fs", "-q", "-t", "ext4", "-O", "^has_journal", "-d", root, disk]
    subprocess.run([*making, f"{_DISK_MEGABYTES}M"], check=True)
    return disk


def _debootstrap(root, log):
    options = ["--variant=minbase", f"--include={_PACKAGES}"]
    command = ["debootstrap", *options, RELEASE, root, mirror()]
    # Its mounts end with it, even when it is interrupted.
    with open(log, "w") as file:
        subprocess.run(
            ["unshare", "--mount", *command],
            check=True,
            stdin=subprocess.DEVNULL,
            stdout=file,
            stderr=file,
        )
    for folder in _DISPENSABLE:
        shutil.rmtree(root / folder)


def _configure(root, network):
    networks = root / "etc/systemd/network"
    (networks / "br0.netdev").write_text(
        f"[NetDev]\nName=br0\nKind=bridge\nMACAddress={network['MAC']}\n"
    )
    (networks / "br0.network").write_text(
        f"[Match]\nName=br0\n\n[Network]\nAddress={network['ADDRESS']}\n"
    )
    shutil.copy(_GUEST / "eth0.network", networks)
    for service in ("agent", "log"):
        shutil.copy(_GUEST / f"{service}.service", root / "etc/systemd/system")
        _want(root, "sysinit", f"/etc/systemd/system/{service}.service")
    _want(root, "multi-user", "/lib/systemd/system/systemd-networkd.service")
    for unit in _NOT_NEEDED:
        _link(root / "etc/systemd/system" / unit, "/dev/null")
    (root / "etc/hostname").write_text("router\n")


def _want(root, target, unit):
    wants = root / f"etc/systemd/system/{target}.target.wants"
    wants.mkdir(exist_ok=True)
    _link(wants / pathlib.Path(unit).name, unit)


def _link(link, target):
    link.unlink(missing_ok=True)
    link.symlink_to(target)


def make_initrd(directory, busybox, modules):
    """The initial RAM disk in `directory`."""
    first = directory / "first-root"
    shutil.rmtree(first, ignore_errors=True)
    for folder in ("bin", "dev", "root", "sbin", "usr/bin", "usr/sbin", "proc"):
        (first / folder).mkdir(parents=True)
    shutil.copy(busybox, first / "bin/busybox")
    (first / "bin/sh").symlink_to("busybox")
    shutil.copy(_GUEST / "init", first)
    initrd = directory / "initrd"
    pack(first, modules, initrd)
    return initrd
