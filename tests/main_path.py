"""The daemon's main job from start to stop, with every packet of it written out by hand.

For tests of how and where the daemon runs: another CPU, another C library, a confined process, an
installed package.
"""

from collections import Counter

import wire
from lab import packets
from lab.browser import IPP, RAW
from lab.lab import TRANSMISSIONS

UNIVERSAL = "_universal._sub._ipp._tcp.local"

# Two insertions, two withdrawals and one question of each kind. A browse question is answered with
# the very records of the announcement.
PACKETS = Counter(
    {
        wire.HOST_PROBE: TRANSMISSIONS,
        wire.PDL_PROBE: 2 * TRANSMISSIONS,
        wire.IPP_PROBE: 2 * TRANSMISSIONS,
        wire.PDL_RECORDS: 3 * TRANSMISSIONS,
        wire.IPP_RECORDS: 4 * TRANSMISSIONS,
        wire.HOST_ANSWER: TRANSMISSIONS,
        wire.PDL_GOODBYE: 2 * TRANSMISSIONS,
        wire.IPP_GOODBYE: 2 * TRANSMISSIONS,
    }
)

LINES = Counter(
    {
        "[Bonjour] Interface: br0 is connected": 1,
        "[Bonjour] MDNS_CheckName: ignorePackets limits.": 1,
        "[Bonjour] default device name = T5140_00-11-22-AA-BB-CC": 1,
        "[Bonjour] Answer Name Start (192.168.77.1)": 1,
        "[Bonjour] device insert lp0": 2,
        "[Bonjour] device remove lp0": 1,
    }
)


def wait_until_announced(lab, since=0):
    for packet in (wire.PDL_PROBE, wire.PDL_RECORDS, wire.IPP_PROBE, wire.IPP_RECORDS):
        lab.wait_for_transmissions(packet, since)


def plug_in(lab):
    """Plugs the printer in and waits until both services are announced."""
    since = lab.capture.mark()
    lab.router.plug_in(0)
    wait_until_announced(lab, since)


def wait_for_goodbyes(lab, since):
    for packet in (wire.PDL_GOODBYE, wire.IPP_GOODBYE):
        lab.wait_for_transmissions(packet, since)


def publish_and_withdraw(lab):
    """A printer in, browsed for, out, and in again, with the daemon up."""
    plug_in(lab)
    assert lab.ask(packets.query((IPP, "PTR"))) == [wire.IPP_RECORDS]
    assert lab.ask(packets.query((UNIVERSAL, "PTR"))) == [wire.IPP_RECORDS]
    assert lab.ask(packets.query((RAW, "PTR"))) == [wire.PDL_RECORDS]
    since = lab.capture.mark()
    lab.router.pull_out(0)
    wait_for_goodbyes(lab, since)
    plug_in(lab)


def sent(lab):
    """How often the router sent which bytes. The answers to lab.ask()'s own markers, one a question
    asked, count as one."""
    counted = Counter(packet.payload for packet in lab.sent())
    counted[wire.HOST_ANSWER] = min(counted[wire.HOST_ANSWER], TRANSMISSIONS)
    return counted


def lines(lab):
    """How often the daemon printed which line, but for the banner and the questions."""
    texts = lab.router.daemon.texts()
    return Counter(text for text in texts if not text.startswith(("[QX] ", "[Bonjour] answer(")))


def walk(lab, wrapper=()):
    """Start, probe, printer in, browse, printer out, stop. Returns what was sent and printed."""
    lab.router.start("T5140", wrapper=wrapper)
    lab.wait_for_transmissions(wire.HOST_PROBE)
    publish_and_withdraw(lab)
    since = lab.capture.mark()
    lab.router.stop()
    wait_for_goodbyes(lab, since)
    return sent(lab), lines(lab)


def check(lab, wrapper=()):
    """Walks, and holds what was sent and printed against the above."""
    found, printed = walk(lab, wrapper)
    assert found == PACKETS
    assert printed == LINES
