"""One question to the link of the network it runs in, and the answers: python3 -m lab.ask NAME TYPE

For looking into a lab by hand, from one of its hosts.
"""

import select
import socket
import sys
import time

from lab import packets
from lab.capture import MDNS_GROUP, MDNS_PORT

_LISTENING_SECONDS = 1.0


def main(name, rrtype="PTR"):
    asking = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    asking.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    asking.bind(("", MDNS_PORT))
    group = socket.inet_aton(MDNS_GROUP) + bytes(4) + socket.if_nametoindex("eth0").to_bytes(
        4, sys.byteorder
    )
    asking.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, group)
    asking.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, group)
    asking.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_LOOP, 0)
    asking.sendto(packets.query((name, rrtype)), (MDNS_GROUP, MDNS_PORT))
    start = time.monotonic()
    while True:
        left = start + _LISTENING_SECONDS - time.monotonic()
        if left <= 0 or not select.select([asking], [], [], left)[0]:
            return
        payload, (source, _) = asking.recvfrom(65536)
        print(f"after {(time.monotonic() - start) * 1000:6.1f} ms from {source}:")
        message = packets.parse(payload)
        for record in message.answers + message.authority + message.additional:
            print(f"    {record.name}  {record.type}  {record.ttl} s  {record.data}")


if __name__ == "__main__":
    main(*sys.argv[1:])
