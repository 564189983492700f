"""A whole lab: a link and its capture, routers and hosts, and what is kept of a failed test."""

import collections
import contextlib
import re

from lab import packets
from lab.browser import IPP, RAW
from lab.capture import MDNS_PORT, Capture
from lab.host import Host
from lab.link import SWITCH, Link
from lab.router import Router
from lab.waiting import TimedOut

MAC = "00:11:22:aa:bb:cc"
ADDRESS = "192.168.77.1"
PREFIX = 24
_BYSTANDER = "192.168.77.250"

# Each packet is sent three times, 250 ms apart. The capture's clock is the wall clock, which may
# be slewed against the daemon's: hence the millisecond.
TRANSMISSIONS = 3
SHORTEST_GAP = 0.249

_MARKER_LINE = re.compile(rf"\[Bonjour\] answer\(.*\) query target from {_BYSTANDER} \(\d+\)")


class Lab:
    """A link with one router (`router`) and one host (`host`), and more of both when asked for.

    As a context manager it closes itself. Whatever happens to this process, nothing of the lab
    outlives it: namespaces are held by its descriptors, and programs run in a process namespace
    whose first process ends with it.
    """

    def __init__(self, mac=MAC, address=f"{ADDRESS}/{PREFIX}", bridge=True):
        self._closing = contextlib.ExitStack()
        try:
            self.link = Link()
            self._closing.callback(self.link.close)
            self.capture = Capture(self.link.network, SWITCH)
            self._closing.callback(self.capture.close)
            self._hosts = 0
            self._exempt = []
            self.bystander = self._add(Host(self.link, _BYSTANDER, name="bystander"))
            self.host = self.add_host()
            self.routers = []
            self.router = self.add_router(mac, address, bridge)
        except BaseException:
            self._closing.close()
            raise

    def _add(self, thing):
        self._closing.callback(thing.close)
        return thing

    def add_host(self, address=None):
        """One more host, by default with the next address from 192.168.77.10 on."""
        address = address or f"192.168.77.{10 + self._hosts}"
        self._hosts += 1
        return self._add(Host(self.link, address))

    def add_router(self, mac=MAC, address="192.168.77.2/24", bridge=True):
        """One more router on the same link, with a br0, printers and a daemon of its own."""
        router = self._add(
            Router(self.link, self.capture, self.bystander, mac, address, bridge)
        )
        self.routers.append(router)
        return router

    # What routers send

    def from_router(self, packet):
        """Whether a packet was sent by a router of this lab from the multicast-DNS port."""
        return packet.source_port == MDNS_PORT and any(
            packet.source in router.addresses for router in self.routers
        )

    def sent(self, since=0, until=None):
        """The packets that the routers have sent so far, or up to the mark `until`."""
        return self.capture.seen(self.from_router, since, until)

    def services(self, since=0):
        """The names of the services that the routers have published so far."""
        return {
            record.data
            for packet in self.sent(since)
            if not packet.is_query
            for record in packet.message.answers
            if record.name in (IPP, RAW) and record.ttl
        }

    def wait_for_packet(self, wanted, since=0, count=1, bound=10.0):
        """The first `count` packets of a router that are the bytes `wanted`, or for which the
        predicate `wanted` holds; raises TimedOut with what was seen instead."""
        if isinstance(wanted, bytes):
            what, holds = packets.summary(wanted), lambda packet: packet.payload == wanted
        else:
            what, holds = "a packet of a router", wanted
        try:
            return self.capture.wait_for(
                lambda packet: self.from_router(packet) and holds(packet),
                count,
                since,
                bound,
                what,
            )
        except TimedOut as problem:
            seen = collections.Counter(packet.payload for packet in self.sent(since))
            lines = [f"{number} x {payload.hex(' ')}" for payload, number in seen.items()]
            wanted_hex = [f"wanted  {wanted.hex(' ')}"] if isinstance(wanted, bytes) else []
            raise TimedOut("\n".join([str(problem), *wanted_hex, "seen:", *lines])) from None

    def wait_for_transmissions(self, wanted, since=0, bound=10.0):
        """Waits for the three transmissions of one packet (as wait_for_packet) and checks that
        they are alike and at least 250 ms apart. Returns them."""
        sent = self.wait_for_packet(wanted, since, TRANSMISSIONS, bound)
        assert len({packet.payload for packet in sent}) == 1, "three different packets"
        gaps = [later.time - earlier.time for earlier, later in zip(sent, sent[1:])]
        assert all(gap >= SHORTEST_GAP for gap in gaps), f"transmissions {gaps} s apart"
        return sent

    def ask(self, payload, host=None, port=MDNS_PORT):
        """Sends one datagram from `host` (by default the lab's first) and returns the router's
        answers to it: the bytes of each, once for its three transmissions, in their order."""
        since = self.capture.mark()
        lines = self.router.daemon.mark()
        (host or self.host).send(payload, port)
        return self.answers(since, lines)

    def answers(self, since, lines):
        """What the router answered from capture position `since` and log position `lines` on.

        The daemon handles one datagram after the other. So once a question that the bystander
        sends now is answered, every earlier datagram has been handled; the answer to the
        bystander is left out of the result. The log tells how many answers to wait for. Last
        transmissions of what was sent before may come among them.
        """
        daemon = self.router.daemon
        marker = packets.query((f"{daemon.device_name}.local", "A"))
        self.bystander.send(marker)
        daemon.wait_for_line(_MARKER_LINE, since=lines)
        texts = daemon.texts(since=lines)
        answered = sum(text.startswith("[Bonjour] answer(") for text in texts)
        answered -= texts.count("[MDNS_Answer] UpdateHostIP error")
        earlier = collections.Counter(packet.payload for packet in self.sent(until=since))
        transmissions = collections.Counter()

        def completes_all(packet):
            # A probe may still be under way.
            if self.from_router(packet) and not packet.is_query:
                transmissions[packet.payload] += 1
            whole = sum(count // TRANSMISSIONS for count in transmissions.values())
            return whole == answered and all(
                count % TRANSMISSIONS in (0, -earlier[payload] % TRANSMISSIONS)
                for payload, count in transmissions.items()
            )

        self.capture.wait_for(completes_all, since=since, what="all transmissions of each answer")
        result = []
        for packet in self.sent(since):
            seen = result.count(packet.payload)
            if seen < transmissions[packet.payload] // TRANSMISSIONS:
                result.append(packet.payload)
        for index in range(len(result) - 1, -1, -1):
            if _answers_marker(result[index], daemon.device_name):
                del result[index]
                break
        return result

    # What is checked and kept

    def allow_malformed(self, holds):
        """Exempts packets for which the predicate holds from check_packets(): the daemon sends some
        that parsers refuse, with labels of 64 characters for instance: see docs/behaviour.md."""
        self._exempt.append(holds)

    def _must_be_well_formed(self, packet):
        return self.from_router(packet) and not any(holds(packet) for holds in self._exempt)

    def check_packets(self, pcap=None):
        """Raises Malformed if an independent parser refuses a packet that a router sent. Writes
        these packets to the path `pcap`, if given, for further opinions."""
        for payload in {each.payload for each in self.capture.seen(self._must_be_well_formed)}:
            packets.parse(payload)
        if pcap:
            self.capture.write_pcap(pcap, self._must_be_well_formed)

    def finish(self, captures, name):
        """What holds for every test: the daemons end cleanly, and what they sent is well-formed.
        It is written to the directory `captures` under this name."""
        for router in self.routers:
            if router.daemon is not None and router.daemon.running:
                router.stop()
        captures.mkdir(parents=True, exist_ok=True)
        self.check_packets(captures / f"{name}.pcap")

    def timeline(self):
        """Log lines and packets in the order of their times, in milliseconds from the first."""
        events = [(packet.time, str(packet)) for packet in self.capture.seen()]
        for number, router in enumerate(self.routers, start=1):
            for daemon in router.daemons:
                events += [
                    (line.time, f"router {number} {line.stream}: {line.text}")
                    for line in daemon.lines.items()
                ]
        events.sort()
        first = events[0][0] if events else 0
        return "".join(f"{(time - first) * 1000:10.3f}  {text}\n" for time, text in events)

    def keep(self, directory):
        """Writes the capture and the time line to `directory`, which is created if needed."""
        directory.mkdir(parents=True, exist_ok=True)
        self.capture.write_pcap(directory / "capture.pcap")
        (directory / "timeline.txt").write_text(self.timeline())

    def close(self):
        self._closing.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


def _answers_marker(payload, device_name):
    """Whether this is the answer to a question for the host name: its A record and no other."""
    owner = packets.name(f"{device_name}.local")
    return len(payload) == 12 + len(owner) + 14 and payload[12:].startswith(owner)
