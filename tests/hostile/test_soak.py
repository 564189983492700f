"""A long life: printers come and go, files break, the address changes and goes, floods come, the
log is not read, threads and memory run out, and hosts ask all the while."""

import contextlib
import os
import random
import re
import resource
import threading
import time

import last_word
import pytest
from lab import packets
from lab.flooding import EVERYTHING_QUESTION, HOST_QUESTION, flood
from lab.packaged import as_packaged
from lab.printers import Printer
from lab.usage import tells_memory, usage_once_senders_ended
from lab.waiting import TimedOut
from ownuser import NO_THREAD, as_own_user, limited

SECONDS = float(os.environ.get("BONJOUR_SOAK_SECONDS", "20"))
SEED = int(os.environ.get("BONJOUR_SOAK_SEED", "1"))
PORTS = range(10)
AT_REST = {0, 3, 7}
DEVICE_LINE = re.compile(r"\[Bonjour\] device (insert|remove) lp(\d)")
NO_ADDRESS = "[MDNS_Answer] UpdateHostIP error"
# The daemon's lines; a torn or a mixed one is none.
LINE = re.compile(
    r"\[(Bonjour|MDNS_Answer|QX)\] [^\[]*|\*{10}(Un)?RegisterOneService error\*{13}"
)
SERVICES = ("_ipp._tcp", "_pdl-datastream._tcp")
QUESTIONS = [
    packets.query(("T5140_00-11-22-AA-BB-CC.local", "A")),
    packets.query(("_ipp._tcp.local", "PTR")),
    packets.query(("_pdl-datastream._tcp.local", "PTR")),
    packets.query(("_universal._sub._ipp._tcp.local", "PTR")),
    packets.query(("Maker 3 Model (aa:bb:cc) 3._ipp._tcp.local", "TXT")),
]

# Seconds from one rest to the next, and of the life that may raise the memory at rest: by then
# every disturbance has come several times.
REST_PERIOD = 60
SETTLING = 300
# KiB by which the memory at rest may then still grow: the heap's end lies where the largest burst
# so far has put it, and a later burst may be larger by some pages.
MEMORY_SLACK = 64
# The sanitizers' own memory bears no limit, and a thousand threads at a time neither.
GENTLE_RATE = 200
# Bytes of address space: room for a job, but not for a sender with its 64 KiB and a guard.
LESS_THAN_A_STACK = 64 * 1024


def printer(port):
    return Printer(port, f"Maker {port}", "Model", "PCL,PS")


def status_text(ports):
    return "".join(printer(port).record() for port in sorted(ports))


def instance(port, service):
    return f"Maker {port} Model (aa:bb:cc) {port}.{service}.local"


def published_ports(answers, service):
    """The ports of the instances that browse answers name for this type."""
    return {
        int(record.data.partition(" Model ")[0].removeprefix("Maker "))
        for answer in answers
        for record in packets.parse(answer).answers
        if record.type == "PTR" and record.name.startswith(service)
    }


class Present:
    """The ports that have a printer as far as the log tells."""

    def __init__(self, daemon):
        self._daemon = daemon
        self.known(())

    def known(self, ports):
        """From here on the log counts, and these are what it goes on from."""
        self._ports = set(ports)
        self._since = self._daemon.mark()

    def _now(self):
        present = set(self._ports)
        for text in self._daemon.texts("stdout", self._since):
            change = DEVICE_LINE.fullmatch(text)
            if change:
                port = int(change[2])
                present = present | {port} if change[1] == "insert" else present - {port}
        return present

    def wait_until(self, wanted):
        seen = self._daemon.mark()
        while self._now() != wanted:
            self._daemon.wait_for_line(DEVICE_LINE, since=seen)
            seen = self._daemon.mark()
        self.known(wanted)


def address_space(pid):
    with open(f"/proc/{pid}/statm") as file:
        return int(file.read().split()[0]) * resource.getpagesize()


class Asker:
    """A host that asks twenty times a second while this is entered."""

    def __init__(self, host):
        self._host = host
        self._done = threading.Event()
        self._turn = threading.Lock()

    def _run(self):
        chance = random.Random(SEED)
        while not self._done.wait(0.05):
            with self._turn:
                self._host.send(chance.choice(QUESTIONS))

    def silent(self):
        """Context in which it does not ask."""
        return self._turn

    def __enter__(self):
        self._done.clear()
        self._thread = threading.Thread(target=self._run)
        self._thread.start()

    def __exit__(self, *_):
        self._done.set()
        self._thread.join()


class Life:
    """What happens to the router, about a step a second."""

    def __init__(self, lab, asker):
        self._lab = lab
        self._asker = asker
        self._daemon = lab.router.daemon
        self._file = lab.router.status_file
        self._chance = random.Random(SEED)
        self._present = set()
        self._noticed = Present(self._daemon)
        self._bears_limits = tells_memory(self._daemon.pid)
        printers = [self._plug, self._pull, self._plug, self._pull, self._shuffle]
        files = [self._cut, self._cut_in_place, self._garbage, self._hide]
        rest = [self._move, self._lose_address, self._flood, self._hang_logger, self._few_threads]
        self._steps = printers + files + rest
        if self._bears_limits:
            self._steps.append(self._little_memory)

    def each_once(self):
        """A step of each kind."""
        return dict.fromkeys(self._steps)

    def any_while(self, holds):
        """Steps by chance, one and more as long as holds()."""
        yield self._chance.choice(self._steps)
        while holds():
            yield self._chance.choice(self._steps)

    # Printers and their file

    def _write(self):
        self._file.replace(status_text(self._present))

    def _settle(self, ports):
        """Lets just these printers be there, and waits until the daemon has noticed them. They all
        come back: one is left out if its file goes while its texts are made, or memory does."""
        for wanted in (set(), set(ports)):
            self._present = wanted
            self._write()
            self._noticed.wait_until(self._present)

    def _plug(self):
        self._present.add(self._chance.choice(PORTS))
        self._write()

    def _pull(self):
        self._present.discard(self._chance.choice(PORTS))
        self._write()

    def _some_ports(self):
        return set(self._chance.sample(PORTS, self._chance.randint(0, len(PORTS))))

    def _shuffle(self):
        self._present = self._some_ports()
        self._write()

    def _cut_text(self):
        text = status_text(self._present)
        return text[: self._chance.randrange(len(text) + 1)]

    def _cut(self):
        self._file.replace(self._cut_text())

    def _cut_in_place(self):
        self._write()
        self._file.rewrite(self._cut_text())

    def _garbage(self):
        noise = self._chance.randbytes(self._chance.choice((1, 100, 5000, 50000)))
        self._file.replace(noise.replace(b"usblp", b""))

    def _hide(self):
        self._file.make_unreadable()

    # The address

    def _move(self):
        self._lab.router.set_address(f"192.168.77.{self._chance.choice((1, 5, 6))}/24")

    def _lose_address(self):
        since = self._daemon.mark()
        self._lab.router.delete_address()
        self._daemon.wait_for_line(NO_ADDRESS, since=since)
        self._move()

    # Floods, and a log that nobody reads. What lines would tell may be lost, so that the printers
    # are known before and the same after.

    def _ask_much(self, question, rate):
        """How many answers came to a second of that; flood() waits until no more come."""
        with self._asker.silent():
            return flood(self._lab, question, rate, 1)[0]["received"]

    def _flood(self):
        self._settle(PORTS)
        since = self._daemon.mark()
        if self._bears_limits:
            received = self._ask_much(EVERYTHING_QUESTION, self._chance.choice((500, 5000)))
            self._daemon.wait_for_line(NO_THREAD, since=since)
        else:
            received = self._ask_much(HOST_QUESTION, GENTLE_RATE)
        assert received > 0
        self._noticed.known(PORTS)

    def _wait_for_records(self, port, since, is_goodbye):
        name = instance(port, SERVICES[0])

        def holds(packet):
            answers = () if packet.is_query else packet.message.answers
            about = any(name in (record.name, record.data) for record in answers)
            return about and all((record.ttl == 0) == is_goodbye for record in answers)

        self._lab.wait_for_packet(holds, since)

    def _hang_logger(self):
        self._settle(PORTS)
        port = self._chance.choice(PORTS)
        since = self._daemon.mark()
        with self._daemon.unread():
            received = self._ask_much(HOST_QUESTION, GENTLE_RATE)
            unplugged = self._lab.capture.mark()
            self._present.discard(port)
            self._write()
            self._wait_for_records(port, unplugged, True)
            plugged = self._lab.capture.mark()
            self._present.add(port)
            self._write()
            self._wait_for_records(port, plugged, False)
        self._noticed.known(PORTS)
        from_flood = f" query target from {self._lab.host.address} "
        logged = sum(from_flood in text for text in self._daemon.texts("stdout", since))
        assert received > 3 * logged

    # Threads and memory that run out

    def _few_threads(self):
        self._settle(PORTS)
        since = self._daemon.mark()
        with limited(self._daemon.pid, "nproc", 1):
            self._daemon.wait_for_line(NO_THREAD, since=since)
            self._settle(self._some_ports())

    def _little_memory(self):
        pid = self._daemon.pid
        self._settle(PORTS)
        with self._asker.silent():
            usage_once_senders_ended(pid)
            since = self._daemon.mark()
            with limited(pid, "as", address_space(pid) + LESS_THAN_A_STACK):
                # The C library keeps fewer stacks than these take. On a busy machine the first
                # packets may want jobs, which are missing without a line, before their senders run.
                for _ in range(50):
                    self._lab.host.send(EVERYTHING_QUESTION)
                    with contextlib.suppress(TimedOut):
                        self._daemon.wait_for_line(NO_THREAD, since=since, bound=0.1)
                        break
                self._daemon.wait_for_line(NO_THREAD, since=since)
        # No page at all.
        with limited(pid, "as", 1):
            self._settle(self._some_ports())

    def rest(self):
        """Leaves a plain file behind, and the daemon without a sender; its usage then. What is
        published is exactly what the file says."""
        self._settle(AT_REST)
        now = usage_once_senders_ended(self._daemon.pid)
        for service in SERVICES:
            answers = self._lab.ask(packets.query((f"{service}.local", "PTR")))
            assert published_ports(answers, service) == AT_REST
        assert [text for text in self._daemon.texts() if not LINE.fullmatch(text)] == []
        self._lab.check_packets()
        self._lab.capture.forget()
        self._daemon.forget()
        usage_once_senders_ended(self._daemon.pid)
        return now


def start(lab, monkeypatch):
    """A daemon as the package starts it."""
    packaged = as_packaged()
    user = as_own_user(lab.router, monkeypatch)
    return lab.router.start(
        environment=packaged["environment"], wrapper=[*user, *packaged["wrapper"]]
    )


class Rests:
    """The daemon's usage each time that it is at rest."""

    def __init__(self, life):
        self._life = life
        self._begun = time.monotonic()
        self._usages = []

    @property
    def seconds(self):
        """How old the life is."""
        return time.monotonic() - self._begun

    def take(self):
        seconds = self.seconds
        usage = self._life.rest()
        print(f"{seconds:.0f} s: {usage}", flush=True)
        self._usages.append((seconds, usage))

    def check(self, tells):
        """Raises unless they are all alike; memory, if it `tells` something, once it settled."""
        held = {(usage.threads, usage.descriptors) for _, usage in self._usages}
        assert len(held) == 1, held
        settled = [
            usage.memory
            for seconds, usage in self._usages
            if seconds >= min(SETTLING, SECONDS / 4)
        ]
        assert len(settled) > 1
        if tells:
            assert settled[-1] <= settled[0] + MEMORY_SLACK


@pytest.mark.seconds(SECONDS + 20)
def test_published_set_is_what_the_file_says_all_through_a_long_life(lab, monkeypatch):
    daemon = start(lab, monkeypatch)
    asker = Asker(lab.add_host())
    life = Life(lab, asker)
    rests = Rests(life)
    rests.take()

    def live(steps):
        with asker:
            for step in steps:
                step()
                # The monitor looks once a second.
                time.sleep(1)
        rests.take()

    live(life.each_once())
    end = 0
    while end < SECONDS:
        end = min(SECONDS, rests.seconds + REST_PERIOD)
        live(life.any_while(lambda: rests.seconds < end))
    rests.check(tells_memory(daemon.pid))

    since = lab.capture.mark()
    lab.router.stop()
    goodbyes = last_word.check(lab.sent(since), by_the_stop=True)
    assert goodbyes == len(SERVICES) * len(AT_REST)
