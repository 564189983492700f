"""Debian's kernels for the virtual machines: the image, and the modules that are needed of each."""

import pathlib
import shutil
import subprocess
import tempfile

from lab.vm.debian import Archive

# What a router of the lab needs: its link, its control and log, a bridge, USB printers, disks.
MODULES = ["virtio_pci", "virtio_net", "virtio_console", "bridge", "xhci_pci", "usblp"]
MODULES += ["virtio_blk", "ext4"]
_READY = "ready"


class Kernel:
    """`image` is the kernel's file, `modules` are those to be loaded, in that order."""

    def __init__(self, directory, architecture, flavour, modules=()):
        """Downloads what is not in `directory` yet."""
        wanted = MODULES + list(modules)
        self.image = directory / "vmlinuz"
        ready = directory / _READY
        if not ready.exists() or ready.read_text().split() != wanted:
            shutil.rmtree(directory, ignore_errors=True)
            _fetch(directory, architecture, flavour, wanted)
            ready.write_text("\n".join(wanted) + "\n")
        self.modules = sorted((directory / "modules").iterdir())


def _fetch(directory, architecture, flavour, wanted):
    archive = Archive(directory / "apt", architecture)
    with tempfile.TemporaryDirectory(dir=directory) as unpacked:
        package = archive.kernel(flavour)
        archive.unpack(package, unpacked)
        version = package.removeprefix("linux-image-")
        shutil.copy(f"{unpacked}/boot/vmlinuz-{version}", directory / "vmlinuz")
        subprocess.run(["depmod", "--basedir", unpacked, version], check=True)
        (directory / "modules").mkdir()
        for number, module in enumerate(_load_order(unpacked, version, wanted)):
            shutil.copy(module, directory / "modules" / f"{number:02}-{module.name}")
    shutil.rmtree(directory / "apt")


def _load_order(unpacked, version, wanted):
    """The files of these modules and of those that they need, each after what it needs."""
    found = []
    for name in wanted:
        shown = subprocess.run(
            ["modprobe", "--dirname", unpacked, "--set-version", version, "--show-depends", name],
            capture_output=True,
            text=True,
            check=True,
        )
        for line in shown.stdout.splitlines():
            kind, _, path = line.partition(" ")
            if kind == "insmod":
                module = pathlib.Path(path.strip())
                if module not in found:
                    found.append(module)
    return found
