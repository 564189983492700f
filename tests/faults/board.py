"""The board: rules for the preloaded library shim.c, which makes libc calls fail or wait, and the
calls that it has seen. Both sides map one file."""

import ctypes
import errno
import itertools
import mmap
import os
from ctypes import c_char, c_int32, c_int64

from lab.printers import device_tool
from lab.waiting import wait_until

# Threads by the order in which the daemon starts them, with one probing pass.
ANY_THREAD = -1
SENDER = -2
INITIAL, RESPONDER, PROBER, ANSWERING, MONITOR = range(5)

JOINABLE, DETACHED = 0, 1

SIOCGIFADDR = 0x8915

_SHIM = "libfault_shim.so"

# In records detached threads have numbers of their own.
FIRST_DETACHED = 1000

_RULES = 32
_RECORDS = 16384


class Rule(ctypes.Structure):
    """Which calls the library acts upon; `seen` counts those, the ones skipped with them."""

    _fields_ = [
        ("function", c_char * 32),
        ("armed", c_int32),
        ("thread", c_int32),
        ("about", c_int64),
        ("skip", c_int64),
        ("times", c_int64),
        ("error", c_int64),
        ("duration", c_int64),
        ("released", c_int64),
        ("seen", c_int64),
        ("until", c_int64),
    ]

    @property
    def hits(self):
        """How many of them were not skipped."""
        return max(0, self.seen - self.skip)

    @property
    def end(self):
        """When the latest of them, and what it entails, was over: wall-clock time in seconds."""
        return self.until / 1e9

    def wait(self, hits=1):
        """Waits until there were so many hits."""
        wait_until(lambda: self.hits >= hits, f"{hits} hits of {self}")

    def release(self):
        """Lets held calls go on, and those to come."""
        self.released = 1

    def __str__(self):
        where = f"thread={self.thread} about={self.about} skip={self.skip} times={self.times}"
        return f"{self.function.decode()} {where}"


class Call(ctypes.Structure):
    """One call of the program. `thread` is as in rules, but each detached thread has a number of
    its own, from FIRST_DETACHED on in the order of their start. `error` is the one with which a
    rule made it fail, or 0. `text` is the path of an open and the line that a write or send was
    about."""

    _fields_ = [
        ("_function", c_char * 32),
        ("is_written", c_int32),
        ("thread", c_int32),
        ("error", c_int64),
        ("about", c_int64),
        ("_text", c_char * 120),
    ]

    @property
    def function(self):
        return self._function.decode()

    @property
    def text(self):
        return self._text.decode(errors="backslashreplace")

    def __str__(self):
        fault = f" FAULT {errno.errorcode[self.error]}" if self.error else ""
        return f"thread {self.thread:4} {self.function}({self.about}){fault} {self.text}".rstrip()


class _Shared(ctypes.Structure):
    _fields_ = [
        ("blocks", c_int64),
        ("mappings", c_int64),
        ("processor_time", c_int64),
        ("joinable", c_int32),
        ("detached", c_int32),
        ("recording", c_int32),
        ("recorded", c_int32),
        ("rules", Rule * _RULES),
        ("records", Call * _RECORDS),
    ]


class Board:
    """The faults of one program."""

    def __init__(self, path):
        self._path = path
        with open(path, "w+b") as file:
            file.truncate(ctypes.sizeof(_Shared))
            self._shared = _Shared.from_buffer(mmap.mmap(file.fileno(), 0))
        self.rules = []

    @property
    def environment(self):
        """What the program's environment says."""
        return {
            "FAULTS": str(self._path),
            "LD_PRELOAD": str(device_tool().with_name(_SHIM)),
            # The library stands before the sanitizer's, whose functions it calls in turn.
            "ASAN_OPTIONS": "verify_asan_link_order=0",
        }

    @property
    def blocks(self):
        """Heap blocks that the program took and has not given back."""
        return self._shared.blocks

    @property
    def mappings(self):
        """Memory mappings that the program made and has not given back: its senders' jobs."""
        return self._shared.mappings

    @property
    def processor_seconds(self):
        """The processor time that the program has used; 0 before its end."""
        return self._shared.processor_time / 1e9

    def record(self):
        """Has every call recorded from now on."""
        self._shared.recording = 1

    @property
    def recorded(self):
        """How many calls were recorded so far. Raises if some were not kept."""
        count = self._shared.recorded
        assert count <= _RECORDS, f"{count} calls are more than are kept"
        return count

    def calls(self, since=0):
        """The recorded calls from that number on, up to one that is still being written."""
        calls = (self._shared.records[number] for number in range(since, self.recorded))
        return list(itertools.takewhile(lambda call: call.is_written, calls))

    def fail(self, function, error, **where):
        """Lets calls fail with this errno from now on; see _add for which. With `seconds` every
        call of the function, on any thread, fails for so long from the first one on that did."""
        return self._add(function, getattr(errno, error), **where)

    def hold(self, function, **where):
        """Lets calls wait until the rule is released."""
        return self._add(function, 0, **where)

    def _add(self, function, error, thread=ANY_THREAD, about=-1, skip=0, times=1, seconds=0):
        """A rule for calls of `function` by `thread` that are about `about`: the size of an
        allocation, the request of an ioctl, JOINABLE or DETACHED of a pthread_create. `skip` of
        them are let through, then the rule applies to `times` of them."""
        number = len(self.rules)
        self._shared.rules[number] = Rule(
            function=function.encode(),
            thread=thread,
            about=about,
            skip=skip,
            times=times,
            error=error,
            duration=round(seconds * 1e9),
        )
        rule = self._shared.rules[number]
        rule.armed = 1
        self.rules.append(rule)
        return rule

    def check(self):
        """Raises if a rule was never reached."""
        never = [str(rule) for rule in self.rules if rule.hits == 0]
        assert not never, f"faults that were never reached: {never}"


def descriptors(pid):
    """What the process's descriptors from 3 on refer to, sockets without their numbers, sorted."""
    links = []
    for number in os.listdir(f"/proc/{pid}/fd"):
        if int(number) > 2:
            try:
                links.append(os.readlink(f"/proc/{pid}/fd/{number}").split(":")[0])
            except FileNotFoundError:
                pass
    return sorted(links)
