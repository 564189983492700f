"""The bridge as it comes and goes (RFC 6762, sections 8.4 and 11): everything is claimed again
within two seconds, and never a restart."""

import fcntl
import socket
import struct
import time

import pytest
from lab.dual import (
    FAMILIES,
    GLOBAL,
    HOST,
    IPP,
    IPV4,
    LOCAL,
    QU,
    DualLab,
    enable_ipv6,
    set_ipv6,
    has,
    query,
)
from lab.waiting import PATIENCE, wait_until
from test_sections_8_to_10 import probes

QUICK = 2.0
SIOCGIFFLAGS = 0x8913
IFF_RUNNING = 0x40


@pytest.fixture
def up(dual):
    dual.router.plug_in(0)
    dual.start()
    dual.wait_for_announcements()
    return dual


def expect_claimed(lab, since, family):
    """Probed and announced again; the first probe within two seconds."""
    changed = lab.changed_at
    first = probes(lab, HOST, since, family)[0]
    assert first.time - changed < QUICK * PATIENCE / 3
    for owner, rrtype in ((HOST, "A"), (IPP, "SRV")):
        lab.wait_for_record(owner, rrtype, since, family)


def is_running(network, interface):
    request = struct.pack("16sH22x", interface.encode(), 0)
    with network.entered(), socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as asking:
        flags = fcntl.ioctl(asking, SIOCGIFFLAGS, request)
    return bool(struct.unpack("16xH22x", flags)[0] & IFF_RUNNING)


def changing(lab, *commands):
    """Changes the router's network and notes when."""
    lab.changed_at = time.time()
    if commands:
        lab.router.network.ip(*commands)


def test_cable_out_and_in(up, family):
    since = up.capture.mark()
    up.router.network.ip("link set lan0 down")
    wait_until(lambda: not is_running(up.router.network, "br0"), "a bridge without a carrier")
    changing(up, "link set lan0 up")
    up.router.network.wait_until_running("br0")
    expect_claimed(up, since, family)
    assert has(up.ask(query(HOST, "A", QU), family), HOST, "A")


def test_bridge_down_and_up(up, family):
    up.router.network.ip("link set br0 down")
    since = up.capture.mark()
    changing(up, "link set br0 up")
    # With the link its IPv6 addresses go, but for those that the kernel makes.
    enable_ipv6(up.router.network, "br0")
    expect_claimed(up, since, family)
    assert has(up.ask(query(HOST, "A", QU), family), HOST, "A")


def test_bridge_deleted_and_made_again(up, family):
    up.router.delete_bridge()
    since = up.capture.mark()
    changing(up)
    up.add_bridge_again()
    expect_claimed(up, since, family)
    assert has(up.ask(query(HOST, "A", QU), family), HOST, "A")
    assert has(up.ask(query(IPP, "SRV"), family), IPP, "SRV")
    up.router.daemon.wait_for_line("[Bonjour] Interface: br0 is connected", count=2)


def test_hardware_address_changed(up, family):
    since = up.capture.mark()
    changing(up, "link set br0 address 00:11:22:33:44:55")
    expect_claimed(up, since, family)


def test_address_that_comes_is_announced(up, family):
    added = "192.168.78.1/24" if family == "ipv4" else "fd00:78::1/64"
    rrtype = "A" if family == "ipv4" else "AAAA"
    since = up.capture.mark()
    up.router.network.ip(
        f"addr add {added} dev br0" + (" nodad" if family == "ipv6" else "")
    )
    address = added.partition("/")[0]
    up.router.addresses.insert(0, address)
    packet = up.wait(
        lambda one: not one.is_query
        and address in {each.data for each in one.message.answers if each.cache_flush},
        since,
    )[0]
    assert {one.type for one in packet.message.answers if one.data == address} == {rrtype}


def test_address_that_goes_is_no_longer_published(up, family):
    since = up.capture.mark()
    gone, rrtype, prefix = ((IPV4, "A", 24), (GLOBAL, "AAAA", 64))[family == "ipv6"]
    up.router.network.ip(f"addr del {gone}/{prefix} dev br0")
    # A goodbye for the last of its type; else those that are left replace all others.
    packet = up.wait_for_record(HOST, rrtype, since, "ipv6")[0]
    said = {(one.data, one.ttl > 0) for one in packet.message.answers if one.type == rrtype}
    assert (gone, True) not in said
    assert (gone, False) in said or (LOCAL, True) in said
    packet = up.ask(query(HOST, rrtype, QU), "ipv6")
    assert gone not in {one.data for one in packet.message.answers}


@pytest.mark.dual(bridge=False)
def test_without_a_bridge_it_waits_and_starts_when_there_is_one(dual):
    daemon = dual.start(ready=False)
    daemon.wait_for_line("[Bonjour] ioctl HWADDR error: No such device")
    dual.add_bridge_again()
    dual.router.wait_for_banner()
    name = HOST.replace("00-11-22-AA-BB-CC", "00-00-00-00-00-00")
    for family in FAMILIES:
        dual.wait_for_record(name, "A", family=family)
    assert daemon.count("[Bonjour] Interface: br0 is connected") == 1


def test_ipv4_alone_and_ipv6_alone(family):
    addresses = {"ipv4": {"address": f"{IPV4}/24"}, "ipv6": {"address": None}}[family]
    rrtype = "A" if family == "ipv4" else "AAAA"
    with DualLab(**addresses) as lab:
        if family == "ipv4":
            set_ipv6(lab.router.network, "br0", False)
        lab.router.addresses.append(IPV4)
        lab.start()
        packet = lab.ask(query(HOST, "ANY", QU), family, alone=True)
        assert {one.type for one in packet.message.answers} == {rrtype}
        # An address brings word that there is none of the other family (section 6.2).
        packet = lab.ask(query(HOST, rrtype, QU), family, alone=True)
        (nsec,) = [one for one in packet.message.additional if one.type == "NSEC"]
        assert nsec.name == HOST and nsec.data.split()[1:] == [rrtype]
        lab.router.stop()
