"""A host on the link: sends any datagram, and can listen as any program on it would."""

import select
import socket
import time

from lab.capture import MDNS_GROUP, MDNS_PORT, Packet
from lab.netns import NetworkNamespace
from lab.waiting import PATIENCE


class Host:
    def __init__(self, link, address, prefix=24, name=None):
        """Plugs a new host with that IPv4 address into `link`."""
        self.address = address
        self.name = name or f"host {address}"
        self.network = NetworkNamespace()
        link.plug_in(self.network, "eth0")
        self.network.ip(f"addr add {address}/{prefix} dev eth0")
        self._sockets = {}

    def socket(self, port=MDNS_PORT):
        """This host's UDP socket at `port`, a member of the multicast group; 0 stands for one at a
        port that the kernel chose. Made at the first call and kept."""
        if port not in self._sockets:
            with self.network.entered():
                made = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            made.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            own = socket.inet_aton(self.address)
            made.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, own)
            made.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, 255)
            made.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_LOOP, 0)
            made.setsockopt(
                socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, socket.inet_aton(MDNS_GROUP) + own
            )
            made.bind(("", port))
            self._sockets[port] = made
        return self._sockets[port]

    def send(self, payload, port=MDNS_PORT, to=(MDNS_GROUP, MDNS_PORT)):
        """Sends one datagram from `port` (0: an ephemeral one) to the group, or where said."""
        self.socket(port).sendto(payload, to)

    def receive(self, bound, port=MDNS_PORT):
        """The next datagram that this host's socket received, as a Packet, or None after `bound`
        seconds (times the lab's patience)."""
        listening = self.socket(port)
        ready, _, _ = select.select([listening], [], [], bound * PATIENCE)
        if not ready:
            return None
        payload, (source, source_port) = listening.recvfrom(65536)
        return Packet(time.time(), source, source_port, self.address, port, 0, payload)

    def close(self):
        for each in self._sockets.values():
            each.close()
        self._sockets.clear()
        self.network.close()
