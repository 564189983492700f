"""What a running process holds: threads, private memory, descriptors."""

import dataclasses
import os
import threading
import time

from lab.waiting import PATIENCE, TimedOut


@dataclasses.dataclass(frozen=True)
class Usage:
    """Threads are the program's own. Memory is in KiB: what is the process's own and can't be
    dropped."""

    threads: int
    memory: int
    descriptors: int


def _field(text, name):
    return next(int(line.split()[1]) for line in text.splitlines() if line.startswith(name))


def _maps(pid, library):
    with open(f"/proc/{pid}/maps") as file:
        return library in file.read()


def usage(pid):
    with open(f"/proc/{pid}/status") as file:
        status = file.read()
    return Usage(
        # The thread sanitizer has its own thread.
        _field(status, "Threads:") - _maps(pid, "libtsan"),
        _field(status, "RssAnon:"),
        len(os.listdir(f"/proc/{pid}/fd")),
    )


# The daemon's threads that live as long as it does: initial, responder, answering, monitor.
LASTING_THREADS = 4


def tells_memory(pid):
    """Whether the process's memory is its own: a sanitizer's runtime keeps what was freed."""
    return not (_maps(pid, "libclang_rt.asan") or _maps(pid, "libtsan"))


def usage_once_senders_ended(pid, bound=10.0):
    """The daemon's usage as soon as its lasting threads are there and no other; raises TimedOut."""
    deadline = time.monotonic() + bound * PATIENCE
    while (now := usage(pid)).threads != LASTING_THREADS:
        if time.monotonic() > deadline:
            raise TimedOut(f"still {now.threads} threads")
        time.sleep(0.01)
    return now


def dropped_datagrams(pid, port=5353):
    """How many datagrams the kernel dropped because the process's socket had no space for them."""
    with open(f"/proc/{pid}/net/udp") as file:
        rows = [line.split() for line in file.readlines()[1:]]
    return sum(int(row[-1]) for row in rows if int(row[1].partition(":")[2], 16) == port)


def private_memory(pid):
    """Private pages in KiB, those of mapped files included; slow with thousands of threads."""
    with open(f"/proc/{pid}/smaps_rollup") as file:
        text = file.read()
    return _field(text, "Private_Clean:") + _field(text, "Private_Dirty:")


def kernel_memory():
    """What the machine's kernel holds now in KiB: stacks of threads, and objects (slab)."""
    with open("/proc/meminfo") as file:
        text = file.read()
    return _field(text, "KernelStack:"), _field(text, "Slab:")


class PeakUsage:
    """Context that samples, twenty times a second, a process's threads and memory, and the memory
    that the kernel has taken since it was entered."""

    _PERIOD = 0.05

    def __init__(self, pid):
        self._pid = pid
        self._done = threading.Event()
        self.threads = 0
        self.memory = 0
        self.kernel_stacks = 0
        self.slab = 0
        # All at the same moment.
        self.total = 0

    def _run(self):
        stacks_before, slab_before = kernel_memory()
        while not self._done.is_set():
            now = usage(self._pid)
            stacks, slab = kernel_memory()
            stacks, slab = max(0, stacks - stacks_before), max(0, slab - slab_before)
            self.threads = max(self.threads, now.threads)
            self.memory = max(self.memory, now.memory)
            self.kernel_stacks = max(self.kernel_stacks, stacks)
            self.slab = max(self.slab, slab)
            self.total = max(self.total, now.memory + stacks + slab)
            self._done.wait(self._PERIOD)

    def __str__(self):
        return (
            f"{self.threads} threads, {self.memory} KiB, "
            f"kernel: {self.kernel_stacks} KiB of stacks, "
            f"{self.slab} KiB of slab; at one moment {self.total} KiB"
        )

    def __enter__(self):
        self._thread = threading.Thread(target=self._run)
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._done.set()
        self._thread.join()
