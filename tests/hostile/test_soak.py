"""A long life: printers come and go, files break, addresses change, and hosts ask all the while."""

import os
import random
import re
import threading
import time

import pytest
from lab import packets
from lab.packaged import as_packaged
from lab.printers import Printer
from lab.usage import tells_memory, usage_once_senders_ended

SECONDS = float(os.environ.get("BONJOUR_SOAK_SECONDS", "20"))
SEED = int(os.environ.get("BONJOUR_SOAK_SEED", "1"))
PORTS = range(10)
DEVICE_LINE = re.compile(r"\[Bonjour\] device (insert|remove) lp(\d)")
MEMORY_SLACK = 1024
SERVICES = ("_ipp._tcp", "_pdl-datastream._tcp")
QUESTIONS = [
    packets.query(("T5140_00-11-22-AA-BB-CC.local", "A")),
    packets.query(("_ipp._tcp.local", "PTR")),
    packets.query(("_pdl-datastream._tcp.local", "PTR")),
    packets.query(("_universal._sub._ipp._tcp.local", "PTR")),
    packets.query(("Maker 3 Model (aa:bb:cc) 3._ipp._tcp.local", "TXT")),
]


def printer(port):
    return Printer(port, f"Maker {port}", "Model", "PCL,PS")


def status_text(ports):
    return "".join(printer(port).record() for port in sorted(ports))


def published_ports(answers, service):
    """The ports of the instances that browse answers name for this type."""
    return {
        int(record.data.partition(" Model ")[0].removeprefix("Maker "))
        for answer in answers
        for record in packets.parse(answer).answers
        if record.type == "PTR" and record.name.startswith(service)
    }


def noticed_ports(daemon):
    """The ports that have a printer as far as the log tells."""
    present = set()
    for text in daemon.texts("stdout"):
        change = DEVICE_LINE.fullmatch(text)
        if change:
            port = int(change[2])
            present = present | {port} if change[1] == "insert" else present - {port}
    return present


def wait_until_noticed(daemon, wanted):
    seen = daemon.mark()
    while noticed_ports(daemon) != wanted:
        daemon.wait_for_line(DEVICE_LINE, since=seen)
        seen = daemon.mark()


class Life:
    """What happens to the router, a step a second."""

    def __init__(self, lab):
        self._lab = lab
        self._chance = random.Random(SEED)
        self._present = set()
        self._steps = [self._plug, self._pull, self._plug, self._pull, self._shuffle]
        self._steps += [self._cut, self._cut_in_place, self._garbage, self._hide, self._move]

    def step(self):
        self._chance.choice(self._steps)()

    def _write(self):
        self._lab.router.status_file.replace(status_text(self._present))

    def _plug(self):
        self._present.add(self._chance.choice(PORTS))
        self._write()

    def _pull(self):
        self._present.discard(self._chance.choice(PORTS))
        self._write()

    def _shuffle(self):
        self._present = set(self._chance.sample(PORTS, self._chance.randint(0, len(PORTS))))
        self._write()

    def _cut_text(self):
        text = status_text(self._present)
        return text[: self._chance.randrange(len(text) + 1)]

    def _cut(self):
        self._lab.router.status_file.replace(self._cut_text())

    def _cut_in_place(self):
        self._write()
        self._lab.router.status_file.rewrite(self._cut_text())

    def _garbage(self):
        noise = self._chance.randbytes(self._chance.choice((1, 100, 5000, 50000)))
        self._lab.router.status_file.replace(noise.replace(b"usblp", b""))

    def _hide(self):
        self._lab.router.status_file.make_unreadable()

    def _move(self):
        self._lab.router.set_address(f"192.168.77.{self._chance.choice((1, 5, 6))}/24")

    def crowd(self):
        """Plugs in all printers at once: the most that the libc will keep of their senders."""
        self._present = set(PORTS)
        self._write()
        wait_until_noticed(self._lab.router.daemon, self._present)

    def settle(self):
        """Leaves a plain file behind; returns the ports whose printers it lists."""
        self._present = {0, 3, 7}
        self._write()
        return self._present


def ask_all_the_while(host, done):
    chance = random.Random(SEED)
    while not done.wait(0.05):
        host.send(chance.choice(QUESTIONS))


@pytest.mark.seconds(SECONDS + 10)
def test_published_set_is_what_the_file_says_after_a_long_life(lab):
    daemon = lab.router.start(**as_packaged())
    life = Life(lab)
    life.crowd()
    before = usage_once_senders_ended(daemon.pid)
    done = threading.Event()
    asking = threading.Thread(target=ask_all_the_while, args=(lab.add_host(), done))
    asking.start()
    try:
        end = time.monotonic() + SECONDS
        while time.monotonic() < end:
            life.step()
            assert not done.wait(1.0)
    finally:
        done.set()
        asking.join()

    wanted = life.settle()
    wait_until_noticed(daemon, wanted)
    after = usage_once_senders_ended(daemon.pid)
    print(f"before and after {SECONDS:.0f} s: {before}, {after}")
    for service in SERVICES:
        answers = lab.ask(packets.query((f"{service}.local", "PTR")))
        assert published_ports(answers, service) == wanted

    assert after.descriptors == before.descriptors
    if tells_memory(daemon.pid):
        assert after.memory <= before.memory + MEMORY_SLACK
