"""One daemon's way from its start to its stop with one fault on it, and what is checked of it."""

import collections
import dataclasses
import functools
import pathlib
import sys
import time

from board import FIRST_DETACHED, SENDER, THREAD_END, Board, descriptors
from lab import packets
from lab.usage import usage
from lab.waiting import PATIENCE, TimedOut
from sweep.expected import PACKETS_THAT_END_THE_PROBE, STDERR, STDOUT, Expectation, Question
from sweep.expected import Unexpected, questions
from sweep.printers import DEVICE_ID, LATER, MODELLED, UNMODELLED

START, IN, ASK, CHANGE, STOP = "start", "printers in", "questions", "one out, one in", "stop"

# The way when the fault is in this phase: on to what it may have touched, and to the stop.
WAYS = {
    None: (START, IN, ASK, CHANGE, STOP),
    START: (START, IN, ASK, STOP),
    IN: (START, IN, ASK, CHANGE, STOP),
    ASK: (START, IN, ASK, ASK, STOP),
    CHANGE: (START, IN, CHANGE, ASK, STOP),
    STOP: (START, IN, STOP),
}

# How a function fails: once, and while it fails for a second.
ERRORS = {
    "calloc": ("ENOMEM", "ENOMEM"),
    "mmap": ("ENOMEM", "EAGAIN"),
    "pthread_create": ("EAGAIN", "EAGAIN"),
    "socket": ("EMFILE", "ENOBUFS"),
    "setsockopt": ("ENOPROTOOPT", "ENOMEM"),
    "bind": ("EADDRINUSE", "ENOMEM"),
    "ioctl": ("EIO", "ENODEV"),
    "open": ("EMFILE", "ENOMEM"),
    "read": ("EINTR", "EIO"),
    "recvfrom": ("EINTR", "ENETDOWN"),
    "sendto": ("ENETUNREACH", "ENOBUFS"),
    "write": ("EAGAIN", "EIO"),
    "send": ("EAGAIN", "EPIPE"),
    "close": ("EINTR", "EIO"),
    "sleep": ("EINTR", "EINTR"),
    "usleep": ("EINTR", "EINTR"),
    "sigsuspend": ("EINTR", "EINTR"),
    "shutdown": ("ENOTCONN", "EIO"),
    "fcntl": ("EBADF", "EINTR"),
    "fstat": ("EIO", "ENOMEM"),
    "dup2": ("EMFILE", "EINTR"),
    "sysconf": ("EINVAL", "EINVAL"),
    "clock_gettime": ("EINVAL", "EINVAL"),
    "pthread_attr_setstacksize": ("EINVAL", "EINVAL"),
}
OUTAGE_SECONDS = 1.0

# A thread that finds one of these failing may try again at once: receiving is prescribed to go on,
# and the others are the very pauses between tries.
MAY_BE_REPEATED = frozenset(("recvfrom", "sleep", "usleep", "sigsuspend"))
TRIES_IN_AN_OUTAGE = 30
PROCESSOR_SECONDS = 1.0

# The pause in microseconds with which a stop looks whether something is being sent, and how often.
POLL_OF_A_STOP = 10000
POLLS_OF_A_STOP = 150

# Descriptors that the lab's own helpers hand down.
INHERITED = ("mnt", "net")

# Seconds after which something hangs.
BOUND = 20
POLL_SECONDS = 0.01

# The threads that may be the monitor: it is the fourth to be started, if no other one failed.
MONITORS = (2, 3, 4)


@dataclasses.dataclass(frozen=True)
class Fault:
    """The call of `function` by `thread` (as in board.py) in `phase` that fails, counted from 0.
    With `lasts` all others do, too, for a second. `on_sockets`: the log goes to sockets."""

    phase: str
    thread: int
    function: str
    number: int
    lasts: bool = False
    on_sockets: bool = False

    def __str__(self):
        thread = "a sender" if self.thread == SENDER else f"thread {self.thread}"
        lasting = ", and all for a second" if self.lasts else ""
        return f"{self.phase}: {self.function} {self.number} of {thread}{lasting}"


@dataclasses.dataclass(frozen=True)
class Made:
    """The calls that a daemon made, and before which of them each phase began."""

    on_sockets: bool
    phase_starts: dict
    calls: list

    def calls_of(self, phase):
        """The calls that began in a phase, by the thread as faults name it, in their order."""
        starts = [*self.phase_starts.values(), len(self.calls)]
        first = self.phase_starts[phase]
        end = starts[starts.index(first) + 1]
        by_thread = collections.defaultdict(list)
        for call in self.calls[first:end]:
            thread = SENDER if call.thread >= FIRST_DETACHED else call.thread
            by_thread[thread].append(call)
        return by_thread


class Gone(Exception):
    """The daemon ended by itself."""


class Unsuited(AssertionError):
    """The way says nothing about the fault: the machine was too busy for it."""


@functools.lru_cache(maxsize=None)
def _check_form(payload):
    packets.parse(payload)


class Gate:
    """Holds the monitor at the end of each pass."""

    def __init__(self, board):
        self._rules = [
            board.hold("sleep", thread=thread, about=1, times=None) for thread in MONITORS
        ]
        self._passed = 0

    @property
    def is_shut(self):
        """Whether the monitor stands before it."""
        return sum(rule.hits for rule in self._rules) > self._passed

    def let_pass(self):
        self._passed = sum(rule.hits for rule in self._rules)
        for rule in self._rules:
            rule.release(rule.hits)

    def open(self):
        for rule in self._rules:
            rule.release()


class Walk:
    """Drives a daemon in `lab`. Its board is the file at `path`."""

    def __init__(self, lab, path, fault=None, on_sockets=False):
        self._fault = fault
        self._lab = lab
        self._router = lab.router
        self._on_sockets = on_sockets
        self._board = Board(path)
        self._rule = None
        if fault:
            self._rule = self._board.fail(
                fault.function,
                ERRORS[fault.function][fault.lasts],
                thread=fault.thread,
                skip=fault.number,
                seconds=OUTAGE_SECONDS if fault.lasts else 0,
                armed=False,
            )
        self._gate = Gate(self._board)
        self._expected = Expectation(lab.bystander.address)
        # The calls in the order of their beginning; of each thread the last one; those that have
        # not returned or stand after such a one.
        self._calls = []
        self._last = {}
        self._pending = []
        self._phase_starts = {}
        self._started = {0}
        self._since = lab.capture.mark()
        self._daemon = None

    def close(self):
        if self._daemon is not None:
            self._daemon.kill()
            self._router.daemons.remove(self._daemon)
            self._router.daemon = None
        self._board.close()

    # The daemon's calls

    def _look(self):
        """Takes in the calls that were made since the last time."""
        numbers = self._pending + list(range(len(self._calls), self._board.recorded))
        blocked = set()
        self._pending = []
        done = []
        for number in numbers:
            call = self._board.call(number)
            if call is None:
                break
            if number == len(self._calls):
                self._calls.append(call)
            self._calls[number] = call
            if number >= getattr(self._last.get(call.thread), "number", 0):
                self._last[call.thread] = call
            if not call.is_done or call.thread in blocked:
                blocked.add(call.thread)
                self._pending.append(number)
                continue
            if call.function == "pthread_create" and call.result >= 0:
                self._started.add(call.result)
            done.append(call)
        self._expected.feed(done)

    def _is_at_rest(self, number):
        call = self._last.get(number)
        if call is None or call.is_done:
            return call is not None and call.function == THREAD_END
        if call.function == "sleep":
            return number == 1 or self._gate.is_shut
        if call.function == "recvfrom":
            return self._expected.taken == len(self._expected.sent)
        return call.function in ("sigsuspend", "pthread_join")

    def _is_quiet(self):
        """Whether every thread waits for something to happen."""
        return self._expected.has_printed_banner and all(map(self._is_at_rest, self._started))

    @property
    def _live(self):
        return [
            number
            for number in self._started
            if number not in self._last or self._last[number].function != THREAD_END
        ]

    @property
    def _has_monitor(self):
        return any(
            self._last[number].function == "sleep" for number in self._live if number in MONITORS
        )

    def _wait(self, holds, what, bound=BOUND):
        deadline = time.monotonic() + bound * PATIENCE
        while True:
            running = self._daemon.running
            self._look()
            if holds():
                return
            if not running:
                raise Gone
            if time.monotonic() > deadline:
                raise TimedOut(f"{bound * PATIENCE} s passed without: {what}")
            time.sleep(POLL_SECONDS)

    def _settle(self):
        """Waits until nothing is under way, and the fault is over."""
        self._wait(self._is_quiet, "quiet")
        if self._rule and self._rule.lasts:
            self._wait(lambda: not self._rule.lasts, "the end of the fault")
            self._wait(self._is_quiet, "quiet after the fault")

    # The way

    def _begin(self, phase):
        self._phase_starts[phase] = self._board.recorded
        if self._fault and self._fault.phase == phase:
            self._rule.arm()

    def _ask(self, asked):
        for question in asked:
            self._expected.sent.append(question)
            self._lab.bystander.send(question.payload)

    def _start(self):
        self._router.status_file.replace("")
        self._board.record()
        self._begin(START)
        environment, wrapper = self._board.environment, ()
        if self._on_sockets:
            relay = pathlib.Path(__file__).with_name("relay.py")
            words = [f"{name}={value}" for name, value in environment.items()]
            environment, wrapper = None, (sys.executable, relay, "env", *words)
        self._daemon = self._router.start(
            "T5140", ready=False, environment=environment, wrapper=wrapper
        )

        def is_listening():
            calls = self._last.values()
            return any(call.function == "recvfrom" and not call.is_done for call in calls)

        self._wait(lambda: is_listening() or self._is_quiet(), "somebody receives")
        if is_listening():
            self._ask([Question(packets.HARMLESS)] * PACKETS_THAT_END_THE_PROBE)
        self._settle()

    def _show(self, *printers):
        """Lets the monitor see these printers."""
        content = "".join(printer.record() for printer in printers)
        listed = frozenset(printer.port for printer in printers)
        self._expected.contents[len(content)] = listed
        self._router.status_file.replace(content)
        tries = 0
        while self._has_monitor and (tries == 0 or self._expected.present != listed):
            tries += 1
            assert tries <= 4, f"the monitor does not notice {sorted(listed)}"
            self._gate.let_pass()
            self._settle()

    def _check_holdings(self):
        """What a daemon at rest holds."""
        pid = self._daemon.pid
        live = len(self._live)
        self._daemon.wait_until(lambda: usage(pid).threads == live, f"{live} threads")
        held = [name for name in descriptors(pid) if name not in INHERITED]
        assert held == self._expected.descriptors, held
        self._check_memory()

    def _check_memory(self):
        held = (self._board.blocks, self._board.mappings)
        wanted = (self._expected.blocks, self._expected.mappings)
        assert held == wanted, f"heap blocks and mappings: {held} are held instead of {wanted}"

    def _stop(self):
        self._check_holdings()
        self._begin(STOP)
        self._gate.open()
        self._daemon.signal(15)
        self._wait(lambda: False, "the end")

    def run(self):
        """Goes the way and raises if anything was not as it has to be."""
        steps = {
            START: self._start,
            IN: lambda: (self._begin(IN), self._show(MODELLED, UNMODELLED)),
            ASK: lambda: (
                self._begin(ASK) if ASK not in self._phase_starts else None,
                self._ask(questions(self._expected)),
                self._settle(),
            ),
            CHANGE: lambda: (self._begin(CHANGE), self._show(UNMODELLED, LATER)),
            STOP: self._stop,
        }
        try:
            for phase in WAYS[self._fault.phase if self._fault else None]:
                steps[phase]()
        except Gone:
            pass
        self._check()

    def _check(self):
        self._daemon.wait_for_exit()
        self._look()
        self._check_pace()
        expected = self._expected
        expected.check_fed()
        if expected.unfinished:
            raise Unexpected(f"threads {expected.unfinished} ended before they had done all")
        self._daemon.check_clean()
        left = [number for number in self._live if number != 0]
        assert not left, f"threads that did not end: {left}"
        self._check_memory()
        for stream, name in ((STDOUT, "stdout"), (STDERR, "stderr")):
            _compare(self._daemon.texts(name), expected.lines[stream], f"lines of {name}")
        sent = [packet.payload for packet in self._lab.sent(self._since)]
        for payload in set(sent):
            _check_form(payload)
        _compare(sent, expected.packets.elements(), "packets")
        self._check_effort()
        if self._rule and self._rule.hits == 0:
            raise Unsuited("the fault was never reached")

    def _check_pace(self):
        """A stop waits for what is being sent twice as long as that takes, and no longer."""
        asleep = [call.about for call in self._calls if call.function == "usleep"]
        polls = asleep.count(POLL_OF_A_STOP)
        may_be_short = self._fault and self._fault.function == "usleep" and self._fault.lasts
        if polls >= POLLS_OF_A_STOP and not may_be_short:
            raise Unsuited("a sender took more than twice its time")

    def _check_effort(self):
        used = self._board.processor_seconds
        assert 0 < used < PROCESSOR_SECONDS, f"{used} s of the processor"
        tries = collections.Counter(
            (call.function, call.thread) for call in self._calls if call.is_fault
        )
        for (function, thread), number in tries.items():
            assert function in MAY_BE_REPEATED or number <= TRIES_IN_AN_OUTAGE, (
                f"{number} calls of {function} failed on thread {thread}"
            )

    # What is told of it

    def made(self):
        """The calls that the daemon made."""
        return Made(self._on_sockets, self._phase_starts, self._calls)

    def story(self):
        """For people: every call, line and packet."""
        lines = [f"{call}" for call in self._calls]
        if self._daemon is not None:
            lines += [f"{line.stream}: {line.text}" for line in self._daemon.lines.items()]
        lines += [str(packet) for packet in self._lab.capture.seen(since=self._since)]
        return "\n".join(lines) + "\n"


def _compare(seen, wanted, what):
    seen, wanted = collections.Counter(seen), collections.Counter(wanted)
    if seen == wanted:
        return

    def tell(counted):
        for item, number in counted.items():
            yield f"{number} x {packets.summary(item) if isinstance(item, bytes) else item}"

    missing, more = list(tell(wanted - seen)), list(tell(seen - wanted))
    raise Unexpected(f"{what}: missing {missing or 'none'}, too many {more or 'none'}")


def prepare(lab):
    """Connects what every way needs."""
    lab.router.connect_device(UNMODELLED.port, DEVICE_ID)
