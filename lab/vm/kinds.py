"""The kinds of routers that there are."""

import dataclasses


@dataclasses.dataclass(frozen=True)
class Board:
    """A computer that QEMU knows: Debian's names of its CPU and of a kernel for it, what starts
    QEMU, what the kernel is told, the preset of a build for it unless it has this machine's CPU,
    and where its C library is."""

    architecture: str
    flavour: str
    qemu: tuple
    options: str
    preset: str | None
    libraries: str


@dataclasses.dataclass(frozen=True)
class Kind:
    """`system` is "busybox" or "debian"."""

    board: Board
    system: str
    megabytes: int


_X86_64 = Board(
    "amd64",
    "amd64",
    ("qemu-system-x86_64", "-machine", "pc", "-cpu", "max"),
    "console=ttyS0",
    None,
    "/lib/x86_64-linux-gnu",
)
_ARMHF = Board(
    "armhf",
    "armmp",
    ("qemu-system-arm", "-machine", "virt,highmem=off", "-cpu", "cortex-a7"),
    # Debian's kernel for every board would keep 16 MiB of the 64 for video.
    "console=ttyAMA0 cma=0",
    "armhf",
    "/usr/arm-linux-gnueabihf/lib",
)
_MIPSEL = Board(
    "mipsel",
    "4kc-malta",
    ("qemu-system-mipsel", "-machine", "malta", "-cpu", "24Kf"),
    "console=ttyS0",
    "mipsel",
    "/usr/mipsel-linux-gnu/lib",
)

KINDS = {
    "x86-64": Kind(_X86_64, "busybox", 160),
    "armhf": Kind(_ARMHF, "busybox", 64),
    "mipsel": Kind(_MIPSEL, "busybox", 64),
    "debian": Kind(_X86_64, "debian", 256),
}
