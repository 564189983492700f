"""The board: rules for the preloaded library shim.c, which makes libc calls fail or wait, and the
calls that it has seen. Both sides map one file."""

import ctypes
import dataclasses
import errno
import mmap
import os
import time
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
# What is recorded when the body of a thread has returned.
THREAD_END = "the end"
_OBSERVE, _FAIL, _HOLD = range(3)

# In records detached threads have numbers of their own.
FIRST_DETACHED = 1000

_RULES = 32
_RECORDS = 16384
_FOR_GOOD = 2**31 - 1
_BEGUN, _FAILED = 1, 3


def option(level, name):
    """The selector of a setsockopt."""
    return level * 65536 + name


class Rule(ctypes.Structure):
    """Which calls the library acts upon, and how often it did: in `hits` those that were made to
    fail or wait or, observed, were counted."""

    _fields_ = [
        ("function", c_char * 32),
        ("armed", c_int32),
        ("action", c_int32),
        ("thread", c_int32),
        ("overdue", c_int32),
        ("about", c_int64),
        ("skip", c_int64),
        ("times", c_int64),
        ("error", c_int64),
        ("path", c_char * 64),
        ("duration", c_int64),
        ("released", c_int64),
        ("seen", c_int64),
        ("hits", c_int64),
        ("latest", c_int64),
    ]

    @property
    def lasts(self):
        """Whether calls of the function fail because an earlier one did."""
        return self.hits > 0 and time.time() - self.latest / 1e9 < self.duration / 1e9

    def wait(self, hits=1):
        """Waits until there were so many hits."""
        wait_until(lambda: self.hits >= hits, f"{hits} hits of {self}")

    def release(self, calls=_FOR_GOOD):
        """Lets held calls go on: so many, counted from the first, or those to come, too."""
        self.released = calls

    def arm(self):
        """Lets the rule apply from now on."""
        self.armed = 1

    def __str__(self):
        where = f"thread={self.thread} about={self.about} path={self.path.decode()}"
        return f"{self.function.decode()} {where} skip={self.skip} times={self.times}"


class _Record(ctypes.Structure):
    _fields_ = [
        ("function", c_char * 32),
        ("state", c_int32),
        ("thread", c_int32),
        ("error", c_int64),
        ("about", c_int64),
        ("result", c_int64),
        ("text", c_char * 120),
    ]


class _Shared(ctypes.Structure):
    _fields_ = [
        ("attached", c_int32),
        ("joinable", c_int32),
        ("blocks", c_int64),
        ("recording", c_int32),
        ("recorded", c_int32),
        ("detached", c_int32),
        ("mappings", c_int32),
        ("processor_time", c_int64),
        ("rules", Rule * _RULES),
        ("records", _Record * _RECORDS),
    ]


@dataclasses.dataclass(frozen=True)
class Call:
    """One call of the program. `thread` is as in rules, but each detached thread has a number of
    its own, from FIRST_DETACHED on in the order of their start. `is_done` tells whether the call
    has returned, `is_fault` whether a rule made it fail. `result` of a pthread_create is the
    thread; `text` is the path of an open and the line that a write or send was about."""

    number: int
    function: str
    thread: int
    about: int
    is_done: bool
    is_fault: bool
    error: int
    result: int
    text: str

    def __str__(self):
        outcome = f"= {self.result}" if self.is_done else "..."
        fault = f" FAULT {errno.errorcode.get(self.error)}" if self.is_fault else ""
        return f"{self.number:5} thread {self.thread:4} {self.function}({self.about}) {outcome}" + (
            f"{fault} {self.text}".rstrip()
        )


class Board:
    """The faults of one program. Rules count from the moment on that they are armed."""

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

    def call(self, number):
        """The recorded call of that number, or None for as long as it is being written."""
        record = self._shared.records[number]
        state = record.state
        if state == 0:
            return None
        return Call(
            number,
            record.function.decode(),
            record.thread,
            record.about,
            state != _BEGUN,
            state == _FAILED,
            record.error,
            record.result,
            record.text.decode(errors="backslashreplace"),
        )

    def fail(self, function, error, **where):
        """Lets calls fail with this errno; see _add for which. With `seconds` every call of the
        function, on any thread, fails for so long from the first one on that did."""
        return self._add(_FAIL, function, getattr(errno, error), **where)

    def hold(self, function, **where):
        """Lets calls wait until the rule is released."""
        return self._add(_HOLD, function, **where)

    def observe(self, function, **where):
        """Only counts calls."""
        return self._add(_OBSERVE, function, **where)

    def _add(
        self,
        action,
        function,
        error=0,
        *,
        thread=ANY_THREAD,
        about=-1,
        path="",
        skip=0,
        times=1,
        seconds=0,
        armed=True,
    ):
        """A rule for calls of `function` by `thread` that are about `about`: the size of an
        allocation, the request of an ioctl, option() of a setsockopt, JOINABLE or DETACHED of a
        pthread_create; or about `path`, for open. `skip` of them are let through, then the rule
        applies to `times` of them, or to all if that is None. Where two rules are about one call,
        the one made first is looked at first."""
        number = len(self.rules)
        self._shared.rules[number] = Rule(
            function=function.encode(),
            action=action,
            thread=thread,
            about=about,
            skip=skip,
            times=-1 if times is None else times,
            error=error,
            path=path.encode(),
            duration=round(seconds * 1e9),
        )
        rule = self._shared.rules[number]
        if armed:
            rule.arm()
        self.rules.append(rule)
        return rule

    def check(self):
        """Raises if a rule was never reached or a held call was never released."""
        assert self._shared.attached, "the library was not loaded"
        never = [str(rule) for rule in self.rules if rule.action != _OBSERVE and rule.hits == 0]
        assert not never, f"faults that were never reached: {never}"
        overdue = [str(rule) for rule in self.rules if rule.overdue]
        assert not overdue, f"calls that were held too long: {overdue}"


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
