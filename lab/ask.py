"""Asks the link that it runs in one question and shows the answers, to explore a lab by hand.

usage: python3 -m lab.ask NAME [TYPE]

Runs on one of the lab's hosts. TYPE is PTR if not given. Ends with status 1 if nobody answers.
"""

import select
import socket
import sys
import time

import dns.exception

from lab import packets
from lab.capture import MDNS_GROUP, MDNS_PORT

_LISTENING_SECONDS = 1.0
_RESPONSE = 0x8000


def _socket():
    made = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    made.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    made.bind(("", MDNS_PORT))
    index = socket.if_nametoindex("eth0").to_bytes(4, sys.byteorder)
    group = socket.inet_aton(MDNS_GROUP) + bytes(4) + index
    made.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, group)
    made.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, group)
    made.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_LOOP, 0)
    return made


def _show(message, source, seconds):
    print(f"after {seconds * 1000:6.1f} ms from {source}:")
    for record in message.answers + message.authority + message.additional:
        print(f"    {record.name}  {record.type}  {record.ttl} s  {record.data}", flush=True)


def _listen(asking):
    """Shows the answers of the next second. Whether there were any."""
    start = time.monotonic()
    answered = False
    while True:
        left = start + _LISTENING_SECONDS - time.monotonic()
        if left <= 0 or not select.select([asking], [], [], left)[0]:
            return answered
        payload, (source, _) = asking.recvfrom(65536)
        message = packets.parse(payload)
        if message.flags & _RESPONSE:
            answered = True
            _show(message, source, time.monotonic() - start)


def main(name="", rrtype="PTR", *more):
    if not name or more:
        sys.exit(__doc__.partition("\n\n")[2].strip())
    try:
        question = packets.query((name, rrtype))
    except (dns.exception.DNSException, ValueError) as error:
        sys.exit(f"{name} {rrtype} is no question: {error}")
    try:
        asking = _socket()
        asking.sendto(question, (MDNS_GROUP, MDNS_PORT))
    except OSError as error:
        sys.exit(f"this is no host of a lab, with an interface eth0 on its link: {error}")
    if not _listen(asking):
        sys.exit(f"nobody answered within {_LISTENING_SECONDS:.0f} s")


if __name__ == "__main__":
    main(*sys.argv[1:])
