"""A daemon's way from its start to its stop with one fault on it, and what has to be true of it."""

import collections
import contextlib
import dataclasses
import json
import re
import time

from board import FIRST_DETACHED, SENDER, Board, descriptors
from lab import Lab, packets
from lab.dual import DualLab
from lab.printers import Printer
from lab.usage import usage
from lab.waiting import PATIENCE, TimedOut

PHASES = START, IN, ASK, CHANGE, STOP = "start", "printers in", "questions", "change", "stop"
OUTAGE_SECONDS = 1.0

# A thread that finds one of these failing may try again at once: receiving is prescribed to go on,
# and the others are the very pauses between tries.
MAY_BE_REPEATED = frozenset(("recvfrom", "recvmsg", "sleep", "usleep", "sigsuspend"))
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
TYPES = (
    "_ipp._tcp.local",
    "_universal._sub._ipp._tcp.local",
    "_pdl-datastream._tcp.local",
)
TEXTS_OF_A_PRINTER = 2
JOBS_KEPT = 4
# With which each service ends: as often as each packet is sent, and as its announcements are.
GOODBYES = {"classic": 3, "standard": 2}

NAME = "[Bonjour] default device name = "
BANNER = "[QX] T5140 Bonjour v2.1 Start ("
DEVICE_LINE = re.compile(r"\[Bonjour\] device (insert|remove) lp(\d)")
# Every line that a daemon may print.
KNOWN_LINE = re.compile(
    r"\[Bonjour\] (?:ioctl HWADDR error|pthread_create(?: error)?|[mc]alloc error|no usb device"
    r"|send packet error|ioctl printer failed|ioctl SIOCGIF(?:FLAGS|ADDR) failed|discovery bind"
    r"|setsockopt \w+|socket(?: AF_NETLINK)?|eventfd|Can not open \"/proc/printer_status\""
    r"): [A-Z][\w /]+"
    r"|\[Bonjour\] (?:ioctl SIOCGIF(?:FLAGS|ADDR) failed:br0|Interface: br0 is connected"
    r"|MDNS_CheckName: (?:receive packet timeout|ignorePackets limits\.)"
    r"|default device name = T5140_[0-9A-F-]{17}|Answer Name Start \((?:192\.168\.77\.1)?\)"
    r"|answer\(192\.168\.77\.1\) query (?:target|_ipp|_pdl-datastream) from [\d.]+ \(\d+\)"
    r"|device (?:insert|remove) lp\d|Can not open \"/proc/printer_status\"|GetTXTData error"
    r"|this service: HP .* \.local is (?:not|already) registered|SERVICE_(?:ADD|REMOVE) error"
    r"|PacketsCompose(?:Add|Remove) error)"
    r"|\[(?:SocketSetup_For_Interface_N|MDNS_Answer)\] UpdateHostIP error"
    r"|\*{10}(?:Un)?RegisterOneService error\*{13}"
    r"|\[QX\] T5140 Bonjour v2\.1 Start \(.*\)"
)

# Seconds after which something hangs, or a daemon that lacks a thread is not waited for any longer,
# and without a packet after which nothing is under way: announcements are 1 s apart.
BOUND = 20
BOUND_WITHOUT_A_THREAD = 4
QUIET = 1.2
POLL_SECONDS = 0.05
BETWEEN_QUESTIONS = 1.1


@dataclasses.dataclass(frozen=True)
class Fault:
    """The call of `function` about `about` by `thread` (as in board.py), counted from 0 from the
    beginning of `phase`, that fails with `error`. With `lasts` all others of the function fail too,
    for a second."""

    responder: str
    phase: str
    thread: int
    function: str
    about: int
    number: int
    error: str
    lasts: bool

    def __str__(self):
        thread = "a sender" if self.thread == SENDER else f"thread {self.thread}"
        about = "" if self.about == -1 else f" about {self.about:#x}"
        lasting = ", and all for a second" if self.lasts else ""
        call = f"{self.function}{about} number {self.number} of {thread}"
        return f"{self.responder}, {self.phase}: {self.error} from {call}{lasting}"

    def row(self):
        """Its line in a file of faults."""
        return f"{json.dumps(dataclasses.asdict(self))}\n"


@dataclasses.dataclass(frozen=True)
class Holdings:
    """What a daemon at rest holds, and its heap blocks once it has ended."""

    threads: int
    descriptors: int
    blocks: int


class Gone(Exception):
    """The daemon ended without being told to."""


class Unsuited(AssertionError):
    """The way says nothing about the fault: the machine was too busy for it."""


class Walk:
    """Drives the daemon with `responder` in `lab`; its board is the file at `path`. `usual` is what
    it holds at most, if that is known."""

    def __init__(self, responder, lab, path, fault=None, usual=None):
        self._goodbyes = GOODBYES[responder]
        self._lab = lab
        self._fault = fault
        self._usual = usual
        self._board = Board(path)
        self._rule = None
        self._calls = []
        self._phase_starts = {}
        self._daemon = None

    # What the daemon does

    def _look(self):
        """Takes in the calls that have begun since the last time."""
        self._calls += self._board.calls(len(self._calls))

    def _lines(self):
        """What it wrote or meant to write, for a line may be what fails."""
        self._look()
        return [call.text for call in self._calls if call.function == "write"]

    def _present(self):
        """The ports that it takes to have a printer."""
        present = set()
        for device in filter(None, map(DEVICE_LINE.fullmatch, self._lines())):
            change = present.add if device[1] == "insert" else present.discard
            change(int(device[2]))
        return present

    def _services(self, since=0):
        """What each packet told of services, in its order: by which address family, the name, and
        whether that was a goodbye."""
        for packet in self._lab.sent(since):
            told = {
                (record.data if record.type == "PTR" else record.name, record.ttl == 0)
                for record in packet.message.answers + packet.message.additional
                if record.type in ("PTR", "SRV")
            }
            for name, is_goodbye in told:
                if name.startswith("HP "):
                    yield ":" in packet.source, name, is_goodbye

    def _published(self, since=0):
        return {name for _, name, is_goodbye in self._services(since) if not is_goodbye}

    def _has_all_threads(self):
        return self._usual is None or usage(self._daemon.pid).threads >= self._usual.threads

    def _wait(self, holds, what, bound=BOUND):
        """A daemon that a fault has cost a thread needs not do it."""
        begun = time.monotonic()
        while not holds():
            waited = (time.monotonic() - begun) / PATIENCE
            if not self._daemon.running:
                raise Gone
            if waited > BOUND_WITHOUT_A_THREAD and not self._has_all_threads():
                return
            if waited > bound:
                raise TimedOut(f"{bound * PATIENCE} s passed without: {what}")
            time.sleep(POLL_SECONDS)

    def _settle(self):
        """Waits until nothing is under way, and the fault is over."""
        packets_seen, since = None, 0

        def is_quiet():
            nonlocal packets_seen, since
            seen = self._lab.capture.mark()
            if seen != packets_seen or (self._rule and time.time() < self._rule.end):
                packets_seen, since = seen, time.monotonic()
            return time.monotonic() - since > QUIET

        self._wait(is_quiet, "quiet")

    # The way

    def _fail(self):
        """Lets the fault come."""
        self._rule = self._board.fail(
            self._fault.function,
            self._fault.error,
            thread=self._fault.thread,
            about=self._fault.about,
            skip=self._fault.number,
            seconds=OUTAGE_SECONDS if self._fault.lasts else 0,
        )

    def _start(self):
        router = self._lab.router
        router.connect_device(UNMODELLED.port, DEVICE_ID)
        router.status_file.replace("")
        self._board.record()
        self._daemon = router.start("T5140", ready=False, environment=self._board.environment)

        def is_up():
            router.end_probe()
            return any(line.startswith(BANNER) for line in self._lines())

        self._wait(is_up, "the start")

    def _show(self, *printers):
        """Lets the monitor see these printers."""
        self._lab.router.status_file.replace("".join(each.record() for each in printers))
        listed = {printer.port for printer in printers}
        self._wait(lambda: self._present() == listed, f"the printers {sorted(listed)}")

    def _ask(self):
        """Asks until it answers for its name and for everything that it has announced."""
        (*_, line) = (each for each in self._lines() if each.startswith(NAME))
        host = f"{line.removeprefix(NAME)}.local"
        questions = [packets.query((host, "A"))]
        questions += [packets.query((name, "PTR")) for name in TYPES]
        since, asked, missing = self._lab.capture.mark(), 0, []

        def is_answered():
            nonlocal asked
            if time.monotonic() - asked > BETWEEN_QUESTIONS:
                asked = time.monotonic()
                # What no type leads to is asked for by its name.
                for question in [*questions, *(packets.query((each, "SRV")) for each in missing)]:
                    self._lab.bystander.send(question)
            answers = [each.message.answers for each in self._lab.sent(since) if not each.is_query]
            present = self._present()
            announced = {
                name for name in self._published() if int(name[name.index(") ") + 2]) in present
            }
            missing[:] = announced - self._published(since)
            return not missing and any(
                answer.name == host and answer.type == "A"
                for section in answers
                for answer in section
            )

        self._wait(is_answered, f"an answer for {host} and {missing}")

    def _stop(self):
        self._daemon.signal(15)
        self._wait(lambda: False, "the end")

    def run(self):
        """Walks it and raises if anything was not as it has to be."""
        steps = {
            START: self._start,
            IN: lambda: self._show(MODELLED, UNMODELLED),
            ASK: self._ask,
            CHANGE: lambda: self._show(UNMODELLED, LATER),
            STOP: self._stop,
        }
        with contextlib.suppress(Gone):
            for phase, step in steps.items():
                if phase == STOP:
                    self._rest()
                self._phase_starts[phase] = self._board.recorded
                if self._fault and self._fault.phase == phase:
                    self._fail()
                step()
                self._settle()
        self._check()

    # What has to be true of it

    def _rest(self):
        """At rest it holds no more threads and descriptors than usual; one may stand for a closed
        standard one."""
        pid, usual = self._daemon.pid, self._usual

        def is_usual():
            held = [each for each in descriptors(pid) if each != "/dev/null"]
            return usage(pid).threads <= usual.threads and len(held) <= usual.descriptors

        if usual:
            self._daemon.wait_until(is_usual, f"no more than {usual}")

    def _check(self):
        self._daemon.wait_for_exit()
        self._look()
        self._check_pace()
        self._daemon.check_clean()
        most = self._usual.blocks + TEXTS_OF_A_PRINTER if self._usual else 100
        assert self._board.blocks <= most, f"{self._board.blocks} heap blocks are left"
        assert self._board.mappings <= JOBS_KEPT, f"{self._board.mappings} mappings are left"
        unknown = [text for text in self._daemon.texts() if not KNOWN_LINE.fullmatch(text)]
        assert not unknown, f"lines that are none of the daemon's: {unknown}"
        self._lab.check_packets()
        # A fault may take a goodbye itself.
        if self._fault is None or self._fault.phase in (START, IN, ASK):
            self._check_goodbyes()
        self._check_effort()
        if self._fault and not (self._rule and self._rule.hits):
            raise Unsuited("the fault was never reached")

    def _check_pace(self):
        """A stop waits for what is being sent twice as long as that takes, and no longer."""
        polls = sum(
            call.function == "usleep" and call.about == POLL_OF_A_STOP for call in self._calls
        )
        may_be_short = self._fault and self._fault.function == "usleep" and self._fault.lasts
        if polls >= POLLS_OF_A_STOP and not may_be_short:
            raise Unsuited("a sender took more than twice its time")

    def _check_goodbyes(self):
        """On each address family the last packets of each service are its goodbyes."""
        of_service = collections.defaultdict(list)
        for family, name, is_goodbye in self._services():
            of_service[family, name].append(is_goodbye)
        for service, heard in of_service.items():
            goodbyes = heard[-self._goodbyes :]
            assert goodbyes == [True] * self._goodbyes, f"{service} ends with {goodbyes}"

    def _check_effort(self):
        used = self._board.processor_seconds
        assert 0 < used < PROCESSOR_SECONDS, f"{used} s of the processor"
        failed = [call for call in self._calls if call.error]
        tries = collections.Counter((call.function, call.thread) for call in failed)
        for (function, thread), number in tries.items():
            assert function in MAY_BE_REPEATED or number <= TRIES_IN_AN_OUTAGE, (
                f"{number} calls of {function} failed on thread {thread}"
            )

    # What is told of it

    def calls_of(self, phase):
        """How many calls there were in a phase by each thread, as faults name it, of each function
        about each thing; of packets the size differs from walk to walk."""
        starts = [*self._phase_starts.values(), len(self._calls)]
        place = PHASES.index(phase)
        return collections.Counter(
            (
                SENDER if call.thread >= FIRST_DETACHED else call.thread,
                call.function,
                -1 if call.function == "sendto" else call.about,
            )
            for call in self._calls[starts[place] : starts[place + 1]]
        )

    def story(self):
        """For people: every call, line and packet."""
        calls = "\n".join(map(str, self._board.calls()))
        return f"{calls}\n{self._lab.timeline()}"


def walk(responder, path, fault=None, usual=None, keep=print):
    """Walks a daemon with that responder through a lab of its own. `keep` is given the story of a
    way that fails."""
    with DualLab() if responder == "standard" else Lab() as lab:
        made = Walk(responder, lab, path, fault, usual)
        try:
            made.run()
        except BaseException:
            keep(f"{fault}\n{made.story()}")
            raise
        return made
