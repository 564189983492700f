"""The lab as one thing: a link, a capture of it, routers and hosts; and what is kept of it."""

import contextlib

from lab.capture import MDNS_GROUP, MDNS_PORT, Capture
from lab.host import Host
from lab.link import SWITCH, Link
from lab.router import Router

MAC = "00:11:22:aa:bb:cc"
ADDRESS = "192.168.77.1"
PREFIX = 24
_BYSTANDER = "192.168.77.250"


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

    def from_router(self, packet):
        """Whether a packet was multicast by a router of this lab, as the daemon does."""
        return packet.source_port == MDNS_PORT and any(
            packet.source in router.addresses for router in self.routers
        )

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
        """Writes the capture and the time line to `directory`, which is made if need be."""
        directory.mkdir(parents=True, exist_ok=True)
        self.capture.write_pcap(directory / "capture.pcap")
        (directory / "timeline.txt").write_text(self.timeline())

    def close(self):
        self._closing.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


__all__ = ["ADDRESS", "Lab", "MAC", "MDNS_GROUP", "MDNS_PORT"]
