"""A long life: printers come and go, files break, the address changes and goes, floods come, the
log is not read, threads and memory run out, and hosts ask all the while."""

import contextlib
import os
import random
import re
import resource
import time

import last_word
import pytest
from lab import packets
from lab.flooding import EVERYTHING_QUESTION, HOST_QUESTION, flood
from lab.packaged import as_packaged
from lab.printers import Printer
from lab.usage import tells_memory, usage_once_senders_ended
from lab.waiting import TimedOut
from last_word import Asker
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
    packets.query(("Maker 3 Model (aa:bb:cc) 3._ipp._tcp.local", "TXT")),
]
ASKED_PER_SECOND = 20

# Seconds from one rest to the next, and of the life that may raise the memory at rest: by then
# every disturbance has come several times.
REST_PERIOD = 60
SETTLING = min(300, SECONDS / 4)
# KiB by which the memory at rest may then still grow: the heap's end lies where the largest burst
# so far has put it, and a later burst may be larger by some pages.
MEMORY_SLACK = 64
# The sanitizers' own memory bears no limit, and a thousand threads at a time neither.
GENTLE_RATE = 200
# Bytes of address space: room for a job, but not for a sender with its 64 KiB and a guard.
LESS_THAN_A_STACK = 64 * 1024


def status_text(ports):
    printers = (Printer(port, f"Maker {port}", "Model", "PCL,PS") for port in sorted(ports))
    return "".join(printer.record() for printer in printers)


def address_space(pid):
    with open(f"/proc/{pid}/statm") as file:
        return int(file.read().split()[0]) * resource.getpagesize()


class Life:
    """What happens to the router, about a step a second."""

    def __init__(self, lab, asker):
        self._lab = lab
        self._asker = asker
        self._daemon = lab.router.daemon
        self._file = lab.router.status_file
        self._chance = random.Random(SEED)
        self._present = set()
        # What the log tells from this position on is added to these.
        self._noticed, self._since = set(), 0
        self._bears_limits = tells_memory(self._daemon.pid)
        self._steps = [
            *(self._change_one, self._change_one, self._change_many),
            *(self._cut, self._cut_in_place, self._garbage, self._file.make_unreadable),
            *(self._move, self._lose_address, self._flood, self._hang_logger, self._few_threads),
        ]
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

    def _write(self, ports):
        self._present = set(ports)
        self._file.replace(status_text(ports))

    def _log_counts_from_here(self):
        """With the printers that are in the file taken for noticed."""
        self._noticed, self._since = set(self._present), self._daemon.mark()

    def _notices_all(self):
        # Lines between the two are taken twice, which changes nothing.
        mark, texts = self._daemon.mark(), self._daemon.texts(since=self._since)
        self._since = mark
        for change in filter(None, map(DEVICE_LINE.fullmatch, texts)):
            alter = self._noticed.add if change[1] == "insert" else self._noticed.discard
            alter(int(change[2]))
        return self._noticed == self._present

    def _settle(self, ports):
        """Lets just these printers be there, and waits until the daemon has noticed them. They all
        come back: one is left out if its file goes while its texts are made, or memory does."""
        for wanted in (set(), ports):
            self._write(wanted)
            self._daemon.wait_until(self._notices_all, f"the printers are {wanted}")

    def _some_ports(self):
        return set(self._chance.sample(PORTS, self._chance.randint(0, len(PORTS))))

    def _change_one(self):
        self._write(self._present ^ {self._chance.choice(PORTS)})

    def _change_many(self):
        self._write(self._some_ports())

    def _cut_text(self):
        text = status_text(self._present)
        return text[: self._chance.randrange(len(text) + 1)]

    def _cut(self):
        self._file.replace(self._cut_text())

    def _cut_in_place(self):
        self._write(self._present)
        self._file.rewrite(self._cut_text())

    def _garbage(self):
        noise = self._chance.randbytes(self._chance.choice((1, 100, 5000, 50000)))
        self._file.replace(noise.replace(b"usblp", b""))

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
        self._log_counts_from_here()

    def _wait_for_records(self, port, since, is_goodbye):
        name = f"Maker {port} Model (aa:bb:cc) {port}.{SERVICES[0]}.local"

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
            for ports, is_goodbye in ((set(PORTS) - {port}, True), (PORTS, False)):
                changed = self._lab.capture.mark()
                self._write(ports)
                self._wait_for_records(port, changed, is_goodbye)
        self._log_counts_from_here()
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
            assert {packets.parse(answer).answers[1].data for answer in answers} == {
                f"Maker {port} Model (aa:bb:cc) {port}.{service}.local" for port in AT_REST
            }
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


@pytest.mark.seconds(SECONDS + 20)
def test_published_set_is_what_the_file_says_all_through_a_long_life(lab, monkeypatch):
    daemon = start(lab, monkeypatch)
    chance = random.Random(SEED)
    asker = Asker(lab.add_host(), ASKED_PER_SECOND, lambda: chance.choice(QUESTIONS))
    life = Life(lab, asker)
    begun = time.monotonic()
    usages = []

    def age():
        return time.monotonic() - begun

    def live(steps):
        with asker:
            for step in steps:
                step()
                # The monitor looks once a second.
                time.sleep(1)
        seconds = age()
        usages.append((seconds, life.rest()))
        print(f"{seconds:.0f} s: {usages[-1][1]}", flush=True)

    live([])
    live(life.each_once())
    end = 0
    while end < SECONDS:
        end = min(SECONDS, age() + REST_PERIOD)
        live(life.any_while(lambda: age() < end))

    held = {(usage.threads, usage.descriptors) for _, usage in usages}
    assert len(held) == 1, held
    settled = [usage.memory for seconds, usage in usages if seconds >= SETTLING]
    assert len(settled) > 1
    if tells_memory(daemon.pid):
        assert settled[-1] <= settled[0] + MEMORY_SLACK

    since = lab.capture.mark()
    lab.router.stop()
    goodbyes = last_word.check(lab.sent(since), by_the_stop=True)
    assert goodbyes == len(SERVICES) * len(AT_REST)
