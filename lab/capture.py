"""Every frame on the link with the kernel's time stamp, kept in memory and written as pcap."""

import dataclasses
import functools
import math
import select
import socket
import struct
import threading
import time

from lab import packets
from lab.waiting import Journal

MDNS_PORT = 5353
MDNS_GROUP = "224.0.0.251"

# From <linux/if_packet.h> and <asm-generic/socket.h>; Python does not name them all.
_ETH_P_ALL = 0x0003
_SOL_PACKET = 263
_PACKET_ADD_MEMBERSHIP = 1
_PACKET_MR_PROMISC = 1
_SO_TIMESTAMPNS = 35
_SO_RCVBUFFORCE = 33
_ETHERNET_HEADER = 14
_ETHERTYPE_IPV4 = 0x0800
_ETHERTYPE_IPV6 = 0x86DD
_PROTOCOL_UDP = 17


@dataclasses.dataclass(frozen=True)
class Packet:
    """A UDP datagram seen on the link. `time` is wall-clock time in seconds."""

    time: float
    source: str
    source_port: int
    destination: str
    port: int
    ttl: int
    payload: bytes

    @functools.cached_property
    def message(self):
        return packets.parse(self.payload)

    @property
    def is_query(self):
        return len(self.payload) > 2 and not self.payload[2] & 0x80

    def __str__(self):
        return (
            f"{self.source}:{self.source_port} > {self.destination}:{self.port} "
            f"{packets.summary(self.payload)}"
        )


def _udp_datagram(time, frame):
    """The Packet in a frame, or None: IPv4, or IPv6 without extension headers."""
    kind = struct.unpack_from("!H", frame, 12)[0] if len(frame) >= _ETHERNET_HEADER else 0
    ip = frame[_ETHERNET_HEADER:]
    if kind == _ETHERTYPE_IPV4 and len(ip) >= 28:
        family, protocol, ttl, addresses = socket.AF_INET, ip[9], ip[8], ip[12:20]
        udp = ip[(ip[0] & 0x0F) * 4 :]
    elif kind == _ETHERTYPE_IPV6 and len(ip) >= 48:
        family, protocol, ttl, addresses = socket.AF_INET6, ip[6], ip[7], ip[8:40]
        udp = ip[40:]
    else:
        return None
    if protocol != _PROTOCOL_UDP:
        return None
    source_port, port, length = struct.unpack_from("!HHH", udp)
    half = len(addresses) // 2
    return Packet(
        time,
        socket.inet_ntop(family, addresses[:half]),
        source_port,
        socket.inet_ntop(family, addresses[half:]),
        port,
        ttl,
        udp[8:length],
    )


class Capture:
    """Packets of the link in their order. A position in it, taken with mark(), says from where on
    a later look counts."""

    def __init__(self, network, interface):
        self.packets = Journal()
        self._frames = []
        self._taking = threading.Lock()
        with network.entered():
            self._socket = socket.socket(
                socket.AF_PACKET, socket.SOCK_RAW, socket.htons(_ETH_P_ALL)
            )
            index = socket.if_nametoindex(interface)
        self._socket.setsockopt(socket.SOL_SOCKET, _SO_RCVBUFFORCE, 8 << 20)
        self._socket.setsockopt(socket.SOL_SOCKET, _SO_TIMESTAMPNS, 1)
        self._socket.setsockopt(
            _SOL_PACKET,
            _PACKET_ADD_MEMBERSHIP,
            struct.pack("iHH8s", index, _PACKET_MR_PROMISC, 0, b""),
        )
        self._socket.bind((interface, _ETH_P_ALL))
        self._stop, self._stopped = socket.socketpair()
        self._thread = threading.Thread(target=self._run, name="capture", daemon=True)
        self._thread.start()

    def _run(self):
        poll = select.poll()
        poll.register(self._socket, select.POLLIN)
        poll.register(self._stopped, select.POLLIN)
        while True:
            ready = dict(poll.poll())
            if self._socket.fileno() in ready:
                self._take_frames()
            elif ready:
                return

    def _take_frames(self):
        """Takes what the kernel has captured so far. That includes every packet that a process has
        reacted to: a caller who knows of a packet by other means finds it after this."""
        with self._taking:
            now = time.time()
            while self._take_frame() < now:
                pass

    def _take_frame(self):
        """Takes one frame and returns when it passed, or infinity if there is none."""
        try:
            frame, ancillary, _, _ = self._socket.recvmsg(65536, 256, socket.MSG_DONTWAIT)
        except OSError:  # no more, or the interface went down
            return math.inf
        seconds, nanoseconds = struct.unpack("qq", ancillary[0][2][:16])
        passed = seconds + nanoseconds / 1e9
        self._frames.append((seconds, nanoseconds, frame))
        packet = _udp_datagram(passed, frame)
        if packet is not None:
            self.packets.append(packet)
        return passed

    def mark(self):
        """The position after the packets so far."""
        self._take_frames()
        return len(self.packets)

    def seen(self, wanted=lambda packet: True, since=0, until=None):
        """The packets so far, or up to the mark `until`, for which `wanted(packet)` holds."""
        self._take_frames()
        return [packet for packet in self.packets.items(since, until) if wanted(packet)]

    def wait_for(self, wanted, count=1, since=0, bound=10.0, what="a packet"):
        """The first `count` such packets from `since` on, as a list; raises TimedOut."""
        return self.packets.wait(wanted, count, since, bound, what)

    def forget(self):
        """Drops the packets so far, which would pile up in a long life; positions stay valid."""
        with self._taking:
            self._frames.clear()
            self.packets.forget()

    def write_pcap(self, path, wanted=lambda packet: True):
        """Writes the frames of the UDP packets for which `wanted` holds to `path`."""
        with open(path, "wb") as file:
            # pcap with times in nanoseconds, link type Ethernet.
            file.write(struct.pack("<IHHiIII", 0xA1B23C4D, 2, 4, 0, 0, 65535, 1))
            for seconds, nanoseconds, frame in list(self._frames):
                packet = _udp_datagram(seconds + nanoseconds / 1e9, frame)
                if packet is not None and wanted(packet):
                    file.write(
                        struct.pack("<IIII", seconds, nanoseconds, len(frame), len(frame))
                    )
                    file.write(frame)

    def close(self):
        """Stops after taking what has already arrived. What was seen can still be looked at."""
        if self._socket.fileno() < 0:
            return
        self._stop.send(b".")
        self._thread.join()
        self._socket.close()
        self._stop.close()
        self._stopped.close()
        self.packets.close()
