"""A long life, as packaged: printers come and go, files break, the address changes and goes, floods
come, the log is not read, and hosts ask between all that."""

import os
import random
import re
import time

import last_word
import pytest
from lab import packets
from lab.flooding import EVERYTHING_QUESTION, flood
from lab.packaged import as_packaged
from lab.printers import PORTS, Printer
from lab.usage import tells_memory, usage_once_senders_ended

SECONDS = float(os.environ.get("BONJOUR_SOAK_SECONDS", "10"))
SEED = int(os.environ.get("BONJOUR_SOAK_SEED", "1"))
AT_REST = {0, 3, 7}
DEVICE_LINE = re.compile(r"\[Bonjour\] device (insert|remove) lp(\d)")
NO_ADDRESS = "[MDNS_Answer] UpdateHostIP error"
NO_THREAD = "[Bonjour] pthread_create: Resource temporarily unavailable"
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

# Questions a second, each for twenty answers, with which threads run out, and which the sanitizers
# bear: their own memory has no limit.
FLOOD_RATE = 5000
GENTLE_RATE = 10

# Seconds from one rest to the next, and of the life that may raise the memory at rest: by then
# every disturbance has come several times.
REST_PERIOD = 60
SETTLING = min(300, SECONDS / 4)
# KiB by which the memory at rest may then still grow: the heap's end lies where the largest burst
# so far has put it, and a later burst may be larger by some pages.
MEMORY_SLACK = 64


def status_text(ports):
    printers = (Printer(port, f"Maker {port}", "Model", "PCL,PS") for port in sorted(ports))
    return "".join(printer.record() for printer in printers)


class Life:
    """What happens to the router, about a step a second."""

    def __init__(self, lab):
        self._lab = lab
        self._daemon = lab.router.daemon
        self._file = lab.router.status_file
        self._chance = random.Random(SEED)
        # The printers of which the log told up to its line `_since`.
        self._noticed, self._since = set(), 0
        self.kinds = [
            *(self._change, self._cut, self._cut_in_place, self._garbage),
            *(self._file.make_unreadable, self._move, self._lose_address),
            *(self._flood, self._hang_logger),
        ]

    def step(self, kind=None):
        """One of `kinds`, or any, and questions for a second, in which the monitor looks."""
        (kind or self._chance.choice(self.kinds))()
        for _ in range(ASKED_PER_SECOND):
            self._lab.host.send(self._chance.choice(QUESTIONS))
            time.sleep(1 / ASKED_PER_SECOND)

    # Printers and their file

    def _some_text(self):
        return status_text(self._chance.sample(PORTS, self._chance.randint(0, len(PORTS))))

    def _change(self):
        self._file.replace(self._some_text())

    def _cut(self):
        text = self._some_text()
        self._file.replace(text[: self._chance.randrange(len(text) + 1)])

    def _cut_in_place(self):
        text = self._some_text()
        self._file.replace(text)
        self._file.rewrite(text[: self._chance.randrange(len(text) + 1)])

    def _garbage(self):
        noise = self._chance.randbytes(self._chance.choice((1, 100, 5000, 50000)))
        self._file.replace(noise.replace(b"usblp", b""))

    def _settle(self, ports):
        """Lets just these printers be there, and waits until the daemon has noticed them. They all
        come back: one is left out if its file goes while its texts are made."""

        def notices():
            # Lines between the two are taken twice, which changes nothing.
            mark, texts = self._daemon.mark(), self._daemon.texts(since=self._since)
            self._since = mark
            for change in filter(None, map(DEVICE_LINE.fullmatch, texts)):
                alter = self._noticed.add if change[1] == "insert" else self._noticed.discard
                alter(int(change[2]))
            return self._noticed == wanted

        for wanted in (set(), set(ports)):
            self._file.replace(status_text(wanted))
            self._daemon.wait_until(notices, f"the printers are {wanted}")

    # The address

    def _move(self):
        self._lab.router.set_address(f"192.168.77.{self._chance.choice((1, 5, 6))}/24")

    def _lose_address(self):
        since = self._daemon.mark()
        self._lab.router.delete_address()
        self._lab.host.send(QUESTIONS[0])
        self._daemon.wait_for_line(NO_ADDRESS, since=since)
        self._move()

    # Floods, in which lines are lost: no printer comes or goes then

    def _flood(self):
        self._settle(PORTS)
        since = self._daemon.mark()
        has_limits = tells_memory(self._daemon.pid)
        flood(self._lab, EVERYTHING_QUESTION, FLOOD_RATE if has_limits else GENTLE_RATE, 1)
        if has_limits:
            self._daemon.wait_for_line(NO_THREAD, since=since)

    def _hang_logger(self):
        self._settle(PORTS)
        with self._daemon.unread():
            counted, _ = flood(self._lab, EVERYTHING_QUESTION, GENTLE_RATE, 1)
        assert counted["received"] > 0

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


@pytest.mark.seconds(SECONDS + 20)
def test_published_set_is_what_the_file_says_all_through_a_long_life(lab):
    daemon = lab.router.start(**as_packaged())
    life = Life(lab)
    begun = time.monotonic()
    usages = []

    def age():
        return time.monotonic() - begun

    def rest():
        seconds = age()
        usages.append((seconds, life.rest()))
        print(f"{seconds:.0f} s: {usages[-1][1]}", flush=True)

    rest()
    for kind in life.kinds:
        life.step(kind)
    rest()
    end = 0
    while end < SECONDS:
        end = min(SECONDS, age() + REST_PERIOD)
        life.step()
        while age() < end:
            life.step()
        rest()

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
