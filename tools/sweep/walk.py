"""One daemon's way from its start to its stop with one fault on it, and what is checked of it."""

import collections
import dataclasses
import functools
import pathlib
import re
import sys
import time

import last_word
from board import FIRST_DETACHED, SENDER, THREAD_END, Board, descriptors
from lab import packets
from lab.printers import Printer
from lab.usage import usage
from lab.waiting import PATIENCE, TimedOut

START, IN, ASK, CHANGE, STOP = "start", "printers in", "questions", "one out, one in", "stop"

# The way when the fault is in this phase: on to what it may have affected, and to the stop.
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

# The first has a model in the status file, the second one in its device id alone, the third comes
# when the first is removed.
MODELLED = Printer(0, "HP", "Model 12")
UNMODELLED = Printer(1, "HP Laser A", "")
LATER = Printer(2, "HP", "Model 34")
DEVICE_ID = "MFG:HP;MODEL:Model 56;CMD:PCL;"
QUESTIONS = (
    packets.query(("_ipp._tcp.local", "PTR")),
    packets.query(("_universal._sub._ipp._tcp.local", "PTR")),
    packets.query(("_pdl-datastream._tcp.local", "PTR")),
)
PACKETS_THAT_END_THE_PROBE = 12
TEXTS_OF_A_PRINTER = 2
JOBS_KEPT = 4
BANNER = "[QX] T5140 Bonjour v2.1 Start ("
DEVICE_LINE = re.compile(r"\[Bonjour\] device (insert|remove) lp(\d)")
# Every line that the daemon may print.
KNOWN_LINE = re.compile(
    r"\[Bonjour\] (?:ioctl HWADDR error|pthread_create(?: error)?|[mc]alloc error|no usb device"
    r"|send packet error|ioctl printer failed|ioctl SIOCGIF(?:FLAGS|ADDR) failed|discovery bind"
    r"|setsockopt \w+|Can not open \"/proc/printer_status\"): [A-Z][\w /]+"
    r"|\[Bonjour\] (?:ioctl SIOCGIF(?:FLAGS|ADDR) failed:br0|Interface: br0 is connected"
    r"|MDNS_CheckName: (?:receive packet timeout|ignorePackets limits\.)"
    r"|default device name = T5140_[0-9A-F-]{17}|Answer Name Start \(192\.168\.77\.1\)"
    r"|answer\(192\.168\.77\.1\) query (?:target|_ipp|_pdl-datastream) from [\d.]+ \(\d+\)"
    r"|device (?:insert|remove) lp\d|Can not open \"/proc/printer_status\"|GetTXTData error"
    r"|this service: HP .* \.local is (?:not|already) registered|SERVICE_(?:ADD|REMOVE) error"
    r"|PacketsCompose(?:Add|Remove) error)"
    r"|\[(?:SocketSetup_For_Interface_N|MDNS_Answer)\] UpdateHostIP error"
    r"|\*{10}(?:Un)?RegisterOneService error\*{13}"
    r"|\[QX\] T5140 Bonjour v2\.1 Start \(.*\)"
)

# Descriptors that the lab's own helpers hand down.
INHERITED = ("mnt", "net")

# Seconds after which something hangs.
BOUND = 20
POLL_SECONDS = 0.01

# The threads that may be the monitor: it is the fourth to be started, if no other failed.
MONITORS = (2, 3, 4)


@dataclasses.dataclass(frozen=True)
class Fault:
    """The call of `function` by `thread` (as in board.py) in `phase` that fails, counted from 0.
    With `lasts` all others fail too, for a second. `on_sockets`: the log goes to sockets."""

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
    """The daemon ended without being told to."""


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
        # What was sent to the daemon, and what is known of it: how much of that it took, whether it
        # came up, and the ports that it takes to have a printer.
        self._sent = 0
        self._taken = 0
        self._has_banner = False
        self._name = None
        self._present = set()
        # The calls in the order of their beginning; of each thread the last one; those that have
        # not returned or follow one that has not.
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

    # The daemon's calls

    def _look(self):
        """Takes in the calls that were made since the last time."""
        numbers = self._pending + list(range(len(self._calls), self._board.recorded))
        blocked = set()
        self._pending = []
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
            self._follow(call)

    def _follow(self, call):
        if call.function == "recvfrom":
            self._taken += call.result > 0
        elif call.function in ("write", "send"):
            self._has_banner |= call.text.startswith(BANNER)
            self._name = call.text.partition(" device name = ")[2] or self._name
            device = DEVICE_LINE.fullmatch(call.text)
            if device:
                change = self._present.add if device[1] == "insert" else self._present.discard
                change(int(device[2]))

    def _is_at_rest(self, number):
        call = self._last.get(number)
        if call is None or call.is_done:
            return call is not None and call.function == THREAD_END
        if call.function == "sleep":
            return number == 1 or self._gate.is_shut
        if call.function == "recvfrom":
            return self._taken == self._sent
        return call.function in ("sigsuspend", "pthread_join")

    def _is_quiet(self):
        """Whether every thread waits for something to happen."""
        return self._has_banner and all(map(self._is_at_rest, self._started))

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

    def _send(self, *payloads):
        self._sent += len(payloads)
        for payload in payloads:
            self._lab.bystander.send(payload)

    def _ask(self):
        """Asks; once the fault is over, everything that was announced has to be answered."""
        is_over = self._fault is None or self._fault.phase != ASK or ASK in self._phase_starts
        if ASK not in self._phase_starts:
            self._begin(ASK)
        since = self._lab.capture.mark()
        is_heard = any(self._last[number].function == "recvfrom" for number in self._live)
        self._send(packets.query((f"{self._name}.local", "A")), *QUESTIONS)
        if is_heard:
            self._settle()
        if not is_heard or not is_over:
            return
        hosts = {self._host_of(packet) for packet in self._lab.sent(since)}
        assert f"{self._name}.local" in hosts, f"{self._name} is not answered: {hosts}"
        announced = {
            name
            for name in _services(self._lab.sent(self._since, since))
            if int(name[name.index(") ") + 2]) in self._present
        }
        answered = _services(self._lab.sent(since))
        assert announced <= answered, f"announced, but not answered: {announced - answered}"

    @staticmethod
    def _host_of(packet):
        """The name that a packet of one answer is about."""
        answers = packet.message.answers
        return answers[0].name if len(answers) == 1 and answers[0].type == "A" else None

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
            self._send(*[packets.HARMLESS] * PACKETS_THAT_END_THE_PROBE)
        self._settle()

    def _show(self, *printers):
        """Lets the monitor see these printers."""
        self._router.status_file.replace("".join(printer.record() for printer in printers))
        listed = {printer.port for printer in printers}
        tries = 0
        while self._has_monitor and (tries == 0 or self._present != listed):
            tries += 1
            assert tries <= 4, f"the monitor does not notice {sorted(listed)}"
            self._gate.let_pass()
            self._settle()

    def _check_holdings(self):
        """What a daemon at rest holds."""
        pid = self._daemon.pid
        live = len(self._live)
        self._daemon.wait_until(lambda: usage(pid).threads == live, f"{live} threads")
        held = [name for name in descriptors(pid) if name not in (*INHERITED, "/dev/null")]
        assert held in ([], ["socket"]), held

    def _check_memory(self):
        """Once it has ended: the texts of the printers that are there, and of services that a fault
        has left behind when their printer went."""
        left = 1 if self._fault and self._fault.phase == CHANGE else 0
        most = TEXTS_OF_A_PRINTER * (len(self._present) + left)
        assert self._board.blocks <= most, f"{self._board.blocks} heap blocks are left"
        assert self._board.mappings <= JOBS_KEPT, f"{self._board.mappings} mappings are left"

    def _stop(self):
        self._check_holdings()
        self._begin(STOP)
        self._gate.open()
        self._daemon.signal(15)
        self._wait(lambda: False, "the end")

    def run(self):
        """Walks it and raises if anything was not as it has to be."""
        steps = {
            START: self._start,
            IN: lambda: (self._begin(IN), self._show(MODELLED, UNMODELLED)),
            ASK: self._ask,
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
        self._daemon.check_clean()
        left = [number for number in self._live if number != 0]
        assert not left, f"threads that did not end: {left}"
        self._check_memory()
        unknown = [text for text in self._daemon.texts() if not KNOWN_LINE.fullmatch(text)]
        assert not unknown, f"lines that are none of the daemon's: {unknown}"
        sent = self._lab.sent(self._since)
        for payload in {packet.payload for packet in sent}:
            _check_form(payload)
        # A fault may take a goodbye itself.
        if self._fault is None or self._fault.phase in (START, IN, ASK):
            last_word.check(sent, by_the_stop=False)
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


def _services(sent):
    """The instances that packets publish."""
    told = (last_word.services_and_lifetime(each.payload) for each in sent if not each.is_query)
    return {name for names, is_goodbye in told for name in names if not is_goodbye}


def prepare(lab):
    """Connects what every way needs."""
    lab.router.connect_device(UNMODELLED.port, DEVICE_ID)
