"""What a program on a host does to find printers: ask, listen and remember."""

import dataclasses
import time

from lab import packets

IPP = "_ipp._tcp.local"
RAW = "_pdl-datastream._tcp.local"


@dataclasses.dataclass
class Service:
    """A printer service as heard on the link; a field is None until a record has told it."""

    instance: str
    type: str
    target: str = None
    port: int = None
    address: str = None
    attributes: dict = None

    @property
    def name(self):
        return self.instance.removesuffix(f".{self.type}")


class Browser:
    """Keeps the services in the responses that its host received, and drops them at a goodbye."""

    def __init__(self, host):
        self._host = host
        self._services = {}
        self._addresses = {}
        host.socket()

    @property
    def services(self):
        """The services present now, each with what is known of it."""
        for service in self._services.values():
            service.address = self._addresses.get(service.target)
        return sorted(self._services.values(), key=lambda service: service.instance)

    def ask(self, name, rrtype="PTR"):
        self._host.send(packets.query((name, rrtype)))

    def address_of(self, name):
        return self._addresses.get(name)

    def listen(self, until, bound):
        """Receives until `until()` holds; returns whether it did within `bound` seconds."""
        deadline = time.monotonic() + bound
        while not until():
            left = deadline - time.monotonic()
            packet = self._host.receive(left) if left > 0 else None
            if packet is None:
                return False
            if not packet.is_query:
                self._take(packet.message)
        return True

    def _take(self, message):
        for record in message.answers + message.additional:
            if record.type == "A":
                self._addresses[record.name] = record.data
            elif record.type == "PTR" and record.name in (IPP, RAW):
                if record.ttl == 0:
                    self._services.pop(record.data, None)
                else:
                    self._services.setdefault(record.data, Service(record.data, record.name))
            elif record.type == "SRV" and record.name in self._services:
                service = self._services[record.name]
                service.port, service.target = record.data
            elif record.type == "TXT" and record.name in self._services:
                pairs = (string.partition("=") for string in record.data)
                self._services[record.name].attributes = {key: text for key, _, text in pairs}
