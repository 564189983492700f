"""A link with both address families, the standard responder on its router, and hosts that ask."""

import contextlib
import pathlib
import socket
import struct
import time

import dns.name
import dns.rdatatype
from lab import Lab, packets
from lab.capture import MDNS_PORT
from lab.daemon import binary
from lab.router import BRIDGE

FAMILIES = ("ipv4", "ipv6")
GROUPS = {"ipv4": "224.0.0.251", "ipv6": "ff02::fb"}

HOST = "T5140_00-11-22-AA-BB-CC.local"
PRINTER = "HP Model 12 (aa:bb:cc) 0"
PDL = f"{PRINTER}._pdl-datastream._tcp.local"
IPP = f"{PRINTER}._ipp._tcp.local"
LPD = f"{PRINTER}._printer._tcp.local"

# The router's addresses: by hand, and the one that its hardware address gives (RFC 4291).
IPV4 = "192.168.77.1"
LOCAL = "fe80::211:22ff:feaa:bbcc"
GLOBAL = "fd00:77::1"
UNICAST = {"ipv4": IPV4, "ipv6": GLOBAL}

IN = 1
ANY = 255
FLUSH = 0x8000
QU = IN | FLUSH
RESPONSE = 0x8400
TRUNCATED = 0x0200

# A second between two packets, less what the clock of their times may be corrected by meanwhile.
A_SECOND = 0.999


def program():
    """The daemon with the standard responder, beside the one under test or that one itself."""
    beside = binary().with_name("bonjour-standard")
    return beside if beside.exists() else binary()


def set_ipv6(network, interface, is_on):
    """Switches the network's IPv6 on, without waiting for others with the same address, or off."""
    with network.entered():
        for name, value in (("accept_dad", "0"), ("disable_ipv6", "0" if is_on else "1")):
            for scope in ("all", "default", interface):
                path = pathlib.Path(f"/proc/sys/net/ipv6/conf/{scope}/{name}")
                with contextlib.suppress(FileNotFoundError):
                    path.write_text(value)


def enable_ipv6(network, interface, *addresses):
    """Lets the network have IPv6 and the interface these addresses of it."""
    set_ipv6(network, interface, True)
    for address in addresses:
        network.ip(f"addr add {address} dev {interface} nodad")


# Messages


def question(owner, rrtype, rrclass=IN):
    return packets.question(owner, rrtype, rrclass)


def record(owner, rrtype, rdata, ttl=120, rrclass=IN):
    """A record's wire form; `rdata` is bytes."""
    wire = owner if isinstance(owner, bytes) else packets.name(owner)
    number = dns.rdatatype.from_text(rrtype)
    return wire + struct.pack("!HHIH", number, rrclass, ttl, len(rdata)) + rdata


def message(questions=(), answers=(), authority=(), additional=(), flags=0, ident=0):
    """A message of wire forms."""
    sections = (questions, answers, authority, additional)
    counts = [len(section) for section in sections]
    return packets.header(*counts, flags=flags, ident=ident) + b"".join(
        part for section in sections for part in section
    )


def query(owner, rrtype, rrclass=IN, **rest):
    return message([question(owner, rrtype, rrclass)], **rest)


def response(*answers, **rest):
    return message(answers=answers, flags=RESPONSE, **rest)


def srv(port, target):
    return struct.pack("!3H", 0, 0, port) + packets.name(target)


def a(address):
    return socket.inet_pton(socket.AF_INET, address)


def aaaa(address):
    return socket.inet_pton(socket.AF_INET6, address)


def _text_of(owner):
    return b".".join(label for label in owner.labels if label).decode(errors="backslashreplace")


def family_of(packet):
    return "ipv6" if ":" in packet.source else "ipv4"


def is_multicast(packet):
    return packet.destination in GROUPS.values()


def records_of(packet):
    """Every record of a response, of a question's packet only the proposed ones."""
    parsed = packet.message
    return parsed.answers + parsed.authority + parsed.additional


def has(packet, owner, rrtype, ttl=None):
    """Whether a response answers with such a record."""
    return not packet.is_query and any(
        one.name.lower() == owner.lower()
        and one.type == rrtype
        and (ttl is None or one.ttl == ttl)
        for one in packet.message.answers
    )


class Asker:
    """Sends and hears on a host, in both families."""

    def __init__(self, network, interface):
        self.network = network
        self.interface = interface
        self._sockets = {}

    def socket(self, family, port=MDNS_PORT):
        """The host's socket at `port`, a member of the group; 0: at one that the kernel chose."""
        if (family, port) not in self._sockets:
            with self.network.entered():
                index = socket.if_nametoindex(self.interface)
                kind = socket.AF_INET6 if family == "ipv6" else socket.AF_INET
                made = socket.socket(kind, socket.SOCK_DGRAM)
            made.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            if family == "ipv6":
                made.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
                made.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_IF, index)
                made.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_HOPS, 255)
                group = aaaa(GROUPS[family]) + struct.pack("@I", index)
                made.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_JOIN_GROUP, group)
            else:
                interface = struct.pack("@4s4si", b"", b"", index)
                made.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, interface)
                made.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, 255)
                group = struct.pack("@4s4si", a(GROUPS[family]), b"", index)
                made.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, group)
            made.bind(("", port))
            self._sockets[family, port] = made
        return self._sockets[family, port]

    def port(self, family):
        """The number of the host's ephemeral port."""
        return self.socket(family, 0).getsockname()[1]

    def send(self, payload, family, port=MDNS_PORT, to=None):
        """Sends one datagram from `port` (0: an ephemeral one) to the group, or to an address."""
        self.socket(family, port).sendto(payload, (to or GROUPS[family], MDNS_PORT))

    def close(self):
        for each in self._sockets.values():
            each.close()


class DualLab(Lab):
    """A Lab whose router has the standard responder. `addresses` are br0's of IPv6."""

    def __init__(self, addresses=(f"{GLOBAL}/64",), **rest):
        super().__init__(**rest)
        try:
            self.router.program = program()
            self.router.probe_can_be_cut_short = False
            self.router.addresses.insert(0, LOCAL)
            self.router.addresses[0:0] = [one.partition("/")[0] for one in addresses]
            if rest.get("bridge", True):
                enable_ipv6(self.router.network, BRIDGE, *addresses)
            self.askers = []
            self.asker = self._asker(self.host, 0)
            self.host_marks = 0
        except BaseException:
            self.close()
            raise

    def _asker(self, host, number):
        enable_ipv6(host.network, "eth0", f"fd00:77::{10 + number}/64")
        made = self._add(Asker(host.network, "eth0"))
        self.askers.append(made)
        return made

    def add_asker(self):
        """One more host."""
        return self._asker(self.add_host(), len(self.askers))

    def start(self, *arguments, **rest):
        """Starts the daemon; without `ready=False` its name is claimed then."""
        return self.router.start(*arguments, **rest)

    def add_bridge_again(self):
        """Makes br0 as it was."""
        self.router.add_bridge(f"{IPV4}/24")
        enable_ipv6(self.router.network, BRIDGE, f"{GLOBAL}/64")

    # What the router sends

    def check_packets(self, pcap=None):
        for packet in self.sent():
            assert packet.ttl == 255, f"RFC 6762, section 11: {packet}"
        super().check_packets(pcap)

    def heard(self, since=0, family=None, wanted=lambda packet: True):
        return [
            packet
            for packet in self.sent(since)
            if (family is None or family_of(packet) == family) and wanted(packet)
        ]

    def wait(self, wanted, since=0, family=None, count=1, bound=10.0):
        """The first `count` packets of the router that are `wanted`."""
        return self.wait_for_packet(
            lambda packet: (family is None or family_of(packet) == family) and wanted(packet),
            since,
            count,
            bound,
        )

    def wait_for_record(self, owner, rrtype, since=0, family=None, ttl=None, count=1, bound=10.0):
        return self.wait(lambda one: has(one, owner, rrtype, ttl), since, family, count, bound)

    def wait_for_announcements(self, since=0, families=FAMILIES):
        """Until the host and the printer have been announced twice."""
        for family in families:
            for owner, rrtype in ((HOST, "A"), (IPP, "SRV"), (LPD, "SRV")):
                self.wait_for_record(owner, rrtype, since, family, count=2)

    def ask(
        self, payload, family, asker=None, port=MDNS_PORT, to=None, bound=10.0, alone=False
    ):
        """Sends a question and gives the response to its first record, as a Packet; with `alone`
        the one that goes to the asker alone, whatever else is announced meanwhile."""
        wanted = _text_of(dns.name.from_wire(payload, 12)[0]).lower()
        since = self.capture.mark()
        (asker or self.asker).send(payload, family, port, to)

        def answers(packet):
            if packet.is_query or (alone and is_multicast(packet)):
                return False
            return any(one.name.lower() == wanted for one in packet.message.answers)

        return self.wait(answers, since, family, bound=bound)[0]

    def rest(self, family, *owners):
        """Waits until everything of these names may be multicast again (RFC 6762, section 6)."""
        last = max(
            (
                packet.time
                for packet in self.heard(0, family, is_multicast)
                if not packet.is_query
                and any(one.name in owners for one in records_of(packet))
            ),
            default=0,
        )
        time.sleep(max(0.0, last + 1.01 - time.time()))

    def hears_nothing(self, payloads, family, port=0, to=None):
        """Sends each, then a question of the same kind that is answered, and returns what came
        before that answer: nothing is waited for, as questions from other ports are answered in
        their order (RFC 6762, section 6.7)."""
        since = self.capture.mark()
        for payload in payloads:
            self.asker.send(payload, family, port, to)
        self.asker.send(query(HOST, "A", ident=0x7E57), family, 0)
        marker = self.wait(
            lambda one: not one.is_query and one.message.ident == 0x7E57, since, family
        )[0]
        own = self.asker.port(family)
        return [
            packet
            for packet in self.heard(since, family)
            if packet is not marker and packet.port == (own if port == 0 else port)
        ]
