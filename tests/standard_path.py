"""The standard responder's main job from start to stop, as main_path.py has the classic one's."""

import main_path
from lab.dual import FAMILIES, HOST, IPP, LPD, PDL, QU, has, query

LINES = main_path.LINES.copy()
del LINES["[Bonjour] MDNS_CheckName: ignorePackets limits."]
# Once more when the bridge is there again.
LINES["[Bonjour] Interface: br0 is connected"] += 1

TYPE = "_ipp._tcp.local"


def wait_until_announced(lab, since=0):
    for family in FAMILIES:
        for owner in (IPP, PDL, LPD):
            lab.wait_for_record(owner, "SRV", since, family, count=2)


def wait_for_goodbyes(lab, since):
    for family in FAMILIES:
        for owner, rrtype in ((TYPE, "PTR"), (IPP, "SRV"), (PDL, "SRV"), (LPD, "SRV")):
            lab.wait_for_record(owner, rrtype, since, family, ttl=0)


def plug_in(lab):
    """Plugs the printer in and waits until its services are announced."""
    since = lab.capture.mark()
    lab.router.plug_in(0)
    wait_until_announced(lab, since)


def check(lab, wrapper=()):
    """Start, printer in, questions, printer out, another bridge, printer in, stop."""
    lab.router.start("T5140", wrapper=wrapper)
    plug_in(lab)
    for family in FAMILIES:
        assert has(lab.ask(query(HOST, "A", QU), family), HOST, "A")
        assert has(lab.ask(query(TYPE, "PTR"), family, port=0), TYPE, "PTR")
    since = lab.capture.mark()
    lab.router.pull_out(0)
    wait_for_goodbyes(lab, since)
    lab.router.delete_bridge()
    since = lab.capture.mark()
    lab.add_bridge_again()
    lab.wait_for_record(HOST, "A", since)
    plug_in(lab)
    since = lab.capture.mark()
    lab.router.stop()
    wait_for_goodbyes(lab, since)
    assert main_path.lines(lab) == LINES
