"""A router that is a virtual machine, and the lab with it in place of the usual one."""

import pathlib
import shutil
import subprocess
import time

from lab.daemon import stock_build
from lab.lab import Lab
from lab.printers import Printer
from lab.vm import busybox_image, debian_image
from lab.vm.cpio import pack
from lab.vm.kernel import Kernel
from lab.vm.kinds import KINDS
from lab.vm.machine import Machine

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
# What is downloaded, and what is built from it.
CACHE = ROOT / "build/machines"
_BOOT_BOUND = 120.0
_STICK_MEGABYTES = 8
# Where a router has its stick mounted, before the daemon is started.
STICK = "/mnt"


def _build(cache, board):
    """Where the daemon for this board was built: this machine's where the lab looks for it."""
    return cache / "build" if board.preset else stock_build()


def _busybox_system(name, board, network):
    """The kernel and its first root file system, for the machine's options."""
    cache = CACHE / name
    kernel = Kernel(cache / "kernel", board.architecture, board.flavour)
    root = cache / "root"
    shutil.rmtree(root, ignore_errors=True)
    busybox_image.make_root(
        root,
        busybox=busybox_image.busybox(cache, board.architecture),
        build=_build(cache, board),
        libraries=pathlib.Path(board.libraries),
        network=network,
    )
    pack(root, kernel.modules, cache / "initrd")
    return {"kernel": kernel.image, "initrd": cache / "initrd", "stick": _stick(cache)}


def _debian_system(name, board, network):
    """The same, and a disk."""
    cache = CACHE / name
    kernel = Kernel(cache / "kernel", board.architecture, board.flavour)
    initrd = debian_image.make_initrd(
        cache, busybox_image.busybox(cache, board.architecture), kernel.modules
    )
    package = _debian_package(_build(cache, board), cache / "package")
    disk = debian_image.make_disk(cache / "debian", network, package)
    return {"kernel": kernel.image, "initrd": initrd, "disk": disk, "stick": _stick(cache)}


def _stick(cache):
    """A file system of its own, with a journal, as on a USB stick; see STICK."""
    image = cache / "stick"
    image.unlink(missing_ok=True)
    making = ["mke2fs", "-q", "-t", "ext4", image, f"{_STICK_MEGABYTES}M"]
    subprocess.run(making, check=True, stdout=subprocess.DEVNULL)
    return image


def _debian_package(build, directory):
    shutil.rmtree(directory, ignore_errors=True)
    packing = ["cpack", "--config", build / "CPackConfig.cmake", "-B", directory]
    subprocess.run(packing, check=True, stdout=subprocess.DEVNULL)
    (made,) = directory.glob("*.deb")
    return made


_SYSTEMS = {"busybox": _busybox_system, "debian": _debian_system}


class MachineRouter:
    """A router as Lab expects it, with a machine behind it once it is started."""

    def __init__(self, link, name, mac, address):
        """`name` is a key of KINDS."""
        self.kind = KINDS[name]
        self.addresses = [address.partition("/")[0]]
        self._link = link
        self._system = _SYSTEMS[self.kind.system](
            name, self.kind.board, {"MAC": mac, "ADDRESS": address}
        )
        self._printers = {}
        self.stick = self._system["stick"]
        self.machine = None
        self.switched_on = None

    def start(self, printers=()):
        """Switches the machine on, with these Printers plugged in from the beginning. On Debian
        installs the package; BusyBox has it from the beginning."""
        self.switched_on = time.time()
        self.machine = Machine(self._link, self.kind, **self._system)
        for printer in printers:
            self._plug_in(printer)
        if self.kind.system == "debian":
            self.machine.run(f"mount /dev/vdb {STICK}")
            self.machine.run(f"dpkg -i {debian_image.PACKAGE}", _BOOT_BOUND)

    def plug_in(self, port, manufacturer="HP", model="Model 12", commands="PJL,PCL"):
        self._plug_in(Printer(port, manufacturer, model, commands))

    def _plug_in(self, printer):
        self._printers[printer.port] = printer
        self.machine.plug_in(printer.port, device_id(printer))

    def printer(self, port):
        """The Printer that is plugged in at `port`, which is one of the machine's and not of its
        driver's."""
        return self._printers[port]

    def pull_out(self, port):
        del self._printers[port]
        self.machine.pull_out(port)

    @property
    def daemon(self):
        return self.machine.log

    @property
    def daemons(self):
        return [self.machine.console, self.machine.log] if self.machine else []

    def close(self):
        if self.machine:
            self.machine.close()


def device_id(printer):
    """What a Printer says of itself."""
    return f"MFG:{printer.manufacturer};MDL:{printer.model};CMD:{printer.commands};".encode()


class MachineLab(Lab):
    """A lab whose router is a machine of the kind `name`."""

    def __init__(self, name):
        self._name = name
        super().__init__()

    def add_router(self, mac, address, bridge=True):
        router = self._add(MachineRouter(self.link, self._name, mac, address))
        self.routers.append(router)
        return router
