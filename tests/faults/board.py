"""The board: rules for the preloaded library shim.c, which makes libc calls fail or wait, and the
calls that it has seen. Both sides map one file."""

import dataclasses
import errno
import mmap
import os
import struct
import time

from lab.printers import device_tool
from lab.waiting import PATIENCE, TimedOut

# Threads by the order in which the daemon starts them, with one probing pass.
ANY_THREAD = -1
SENDER = -2
INITIAL, RESPONDER, PROBER, ANSWERING, MONITOR = range(5)

JOINABLE, DETACHED = 0, 1

SIOCGIFHWADDR = 0x8927
SIOCGIFFLAGS = 0x8913
SIOCGIFADDR = 0x8915
LPIOC_GET_DEVICE_ID = 0x82005001

_SHIM = "libfault_shim.so"
FUNCTIONS = (
    "malloc calloc pthread_create socket setsockopt bind ioctl open read recvfrom sendto "
    "write send close sleep usleep shutdown fcntl fstat dup2 sigsuspend sysconf clock_gettime "
    "pthread_attr_setstacksize pthread_join mmap"
).split()
# What is recorded when the body of a thread has returned.
THREAD_END = "the end"
_RECORDED = [*FUNCTIONS, THREAD_END]
_OBSERVE, _FAIL, _HOLD, _LIMIT = range(4)

# In records detached threads have numbers of their own.
FIRST_DETACHED = 1000

_HEADER = struct.Struct("<iiqiiiiq")
_RULES = 32
_RULE = struct.Struct("<iiiiqqqq64sqiiqqqqq")
_RECORD = struct.Struct("<iiiiqq120s")
_RECORDS = 16384
_RECORDS_OFFSET = _HEADER.size + _RULES * _RULE.size
_RECORDING_OFFSET = 16
_RELEASED_OFFSET = 120
_FOR_GOOD = 2**31 - 1
_POLL_SECONDS = 0.002
_BEGUN, _DONE, _FAILED = 1, 2, 3


def option(level, name):
    """The selector of a setsockopt."""
    return level * 65536 + name


class Rule:
    """Which calls the library acts upon, and how often it did."""

    def __init__(self, board, number, text, is_fault):
        self.is_fault = is_fault
        self._board = board
        self._offset = _HEADER.size + number * _RULE.size
        self._text = text

    def _fields(self):
        return _RULE.unpack_from(self._board, self._offset)

    @property
    def seen(self):
        """Calls that matched."""
        return self._fields()[12]

    @property
    def hits(self):
        """Calls that were made to fail or wait, were limited, or (observe) were counted."""
        return self._fields()[13]

    @property
    def bytes(self):
        """The bytes that all calls that matched asked for."""
        return self._fields()[14]

    @property
    def most_bytes(self):
        """The most that one of them asked for."""
        return self._fields()[15]

    @property
    def latest(self):
        """The wall-clock time of the last hit, in seconds."""
        return self._fields()[16] / 1e9

    @property
    def overdue(self):
        """Whether a call was held for so long that the library gave up."""
        return self._fields()[11] != 0

    @property
    def lasts(self):
        """Whether calls of the function fail because an earlier one did."""
        duration = self._fields()[9] / 1e9
        return self.hits > 0 and time.time() - self.latest < duration

    def wait(self, hits=1, bound=10.0):
        """Waits until there were so many hits."""
        _wait(lambda: self.hits >= hits, bound, lambda: f"{self}: {self.hits} of {hits} hits")

    def release(self, calls=_FOR_GOOD):
        """Lets held calls go on: so many, counted from the first, or those to come, too."""
        struct.pack_into("<i", self._board, self._offset + _RELEASED_OFFSET, calls)

    def arm(self):
        """Lets the rule apply from now on."""
        struct.pack_into("<i", self._board, self._offset, 1)

    def lift(self):
        """Lets the rule apply no more."""
        struct.pack_into("<i", self._board, self._offset, 0)

    def __str__(self):
        return self._text


@dataclasses.dataclass(frozen=True)
class Record:
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
            file.truncate(_RECORDS_OFFSET + _RECORDS * _RECORD.size)
            self._board = mmap.mmap(file.fileno(), 0)
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
    def attached(self):
        """Whether the program has loaded the library."""
        return _HEADER.unpack_from(self._board)[0] == 1

    @property
    def blocks(self):
        """Heap blocks that the program took and has not given back."""
        return _HEADER.unpack_from(self._board)[2]

    @property
    def mappings(self):
        """Memory mappings that the program made and has not given back: its senders' jobs."""
        return _HEADER.unpack_from(self._board)[6]

    @property
    def processor_seconds(self):
        """The processor time that the program has used; 0 before its end."""
        return _HEADER.unpack_from(self._board)[7] / 1e9

    def record(self):
        """Has every call recorded from now on."""
        struct.pack_into("<i", self._board, _RECORDING_OFFSET, 1)

    @property
    def recorded(self):
        """How many calls were recorded so far. Raises if some were not kept."""
        count = _HEADER.unpack_from(self._board)[4]
        assert count <= _RECORDS, f"{count} calls are more than are kept"
        return count

    def call(self, number):
        """The recorded call of that number, or None for as long as it is being written."""
        offset = _RECORDS_OFFSET + number * _RECORD.size
        state, function, thread, error, about, result, text = _RECORD.unpack_from(
            self._board, offset
        )
        if state == 0:
            return None
        return Record(
            number,
            _RECORDED[function],
            thread,
            about,
            state != _BEGUN,
            state == _FAILED,
            error,
            result,
            text.partition(b"\0")[0].decode(errors="backslashreplace"),
        )

    def fail(self, function, error, **where):
        """Lets calls fail with this errno; see _add for which. With `seconds` every call of the
        function, on any thread, fails for so long from the first one on that did."""
        return self._add(_FAIL, function, getattr(errno, error), **where)

    def hold(self, function, **where):
        """Lets calls wait until the rule is released."""
        return self._add(_HOLD, function, 0, **where)

    def limit(self, function, most, **where):
        """Lets reads return no more than `most` bytes."""
        return self._add(_LIMIT, function, most, **where)

    def observe(self, function, **where):
        """Only counts calls."""
        return self._add(_OBSERVE, function, 0, **where)

    def _add(
        self,
        action,
        function,
        argument,
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
        text = f"{function} thread={thread} about={about} path={path} skip={skip} times={times}"
        rule = Rule(self._board, len(self.rules), text, action != _OBSERVE)
        fields = (
            *(0, FUNCTIONS.index(function), thread, action),
            *(about, skip, -1 if times is None else times, argument),
            *(path.encode(), round(seconds * 1e9), 0, 0, 0, 0, 0, 0, 0),
        )
        _RULE.pack_into(self._board, rule._offset, *fields)
        if armed:
            rule.arm()
        self.rules.append(rule)
        return rule

    def wait_until_the_monitor_runs(self, bound=10.0):
        """Waits until the program holds a heap block: the first one is the monitor's."""
        _wait(lambda: self.blocks > 0, bound, lambda: "the monitor does not start")

    def wait_for_blocks(self, wanted, bound=10.0):
        _wait(
            lambda: self.blocks == wanted,
            bound,
            lambda: f"{self.blocks} heap blocks are held instead of {wanted}",
        )

    def check(self):
        """Raises if a rule was never reached or a held call was never released."""
        assert self.attached, "the library was not loaded"
        never = [str(rule) for rule in self.rules if rule.is_fault and rule.hits == 0]
        assert not never, f"faults that were never reached: {never}"
        overdue = [str(rule) for rule in self.rules if rule.overdue]
        assert not overdue, f"calls that were held too long: {overdue}"

    def close(self):
        self._board.close()


def _wait(holds, bound, what):
    deadline = time.monotonic() + bound * PATIENCE
    while not holds():
        if time.monotonic() > deadline:
            raise TimedOut(what())
        time.sleep(_POLL_SECONDS)


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


def wait_for_descriptors(pid, wanted, bound=10.0):
    _wait(
        lambda: descriptors(pid) == wanted,
        bound,
        lambda: f"{descriptors(pid)} are open instead of {wanted}",
    )
