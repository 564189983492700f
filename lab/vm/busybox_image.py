"""Root file systems of BusyBox and the daemon as its package installs it."""

import os
import pathlib
import re
import shutil
import subprocess

from lab.vm.debian import Archive

_GUEST = pathlib.Path(__file__).with_name("guest") / "busybox"
_FOLDERS = ("bin", "dev", "etc/init.d", "lib/modules", "mnt", "proc", "root", "sbin", "sys", "tmp")
_FOLDERS += ("usr/bin", "usr/sbin", "var/run", "var/log")


def busybox(directory, architecture):
    """BusyBox for that CPU, downloaded to `directory` if it is not there yet."""
    found = directory / "busybox"
    if not found.exists():
        unpacked = directory / "busybox-package"
        shutil.rmtree(unpacked, ignore_errors=True)
        Archive(directory / "apt", architecture).unpack("busybox-static", unpacked)
        shutil.copy(unpacked / "bin/busybox", found)
        shutil.rmtree(unpacked)
        shutil.rmtree(directory / "apt")
    return found


def install(build, root):
    """What the build `build` installs on a router, all of it."""
    subprocess.run(
        ["cmake", "--install", build, "--prefix", "/usr", "--strip"],
        env={**os.environ, "DESTDIR": str(root)},
        check=True,
        stdout=subprocess.DEVNULL,
    )


def copy_libraries(program, root, libraries):
    """The C library of `program`, from the folder `libraries`, to where `program` looks for it."""
    shown = subprocess.run(
        ["readelf", "-ld", program], capture_output=True, text=True, check=True
    ).stdout
    loader = re.search(r"program interpreter: (.*)\]", shown)[1]
    target = root / loader.lstrip("/")
    target.parent.mkdir(parents=True, exist_ok=True)
    shutil.copy(libraries / target.name, target)
    (root / "lib").mkdir(exist_ok=True)
    for name in re.findall(r"NEEDED.*\[(.*)\]", shown):
        shutil.copy(libraries / name, root / "lib" / name)


def make_root(root, *, busybox, build, libraries, network):
    """A router's root file system in the new directory `root`; `network` are the shell variables of
    its network script."""
    for folder in _FOLDERS:
        (root / folder).mkdir(parents=True)
    shutil.copy(busybox, root / "bin/busybox")
    (root / "bin/sh").symlink_to("busybox")
    (root / "init").symlink_to("bin/busybox")
    for name, target in (
        *(("inittab", "etc"), ("rcS", "etc/init.d")),
        *(("network", "etc/init.d"), ("agent", "sbin")),
    ):
        shutil.copy(_GUEST / name, root / target)
    (root / "etc/network.conf").write_text(
        "".join(f"{name}={value}\n" for name, value in network.items())
    )
    (root / "etc/passwd").write_text("root:x:0:0:root:/root:/bin/sh\n")
    (root / "etc/group").write_text("root:x:0:\nlp:x:7:\n")
    install(build, root)
    copy_libraries(root / "usr/sbin/bonjour", root, libraries)
    shutil.copy(root / "usr/share/bonjour/mdev.conf", root / "etc")
