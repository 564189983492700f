"""Addresses, sizes and messages, as RFC 6762 has them in sections 11, 15, 17 and 18."""

from lab import packets
from lab.capture import MDNS_PORT
from lab.dual import (
    GROUPS,
    HOST,
    IPP,
    PDL,
    QU,
    TRUNCATED,
    Asker,
    enable_ipv6,
    has,
    message,
    query,
    question,
)

IPP_TYPE = "_ipp._tcp.local"
MTU = 1500
# The headers of IP and UDP.
HEADERS = {"ipv4": 20 + 8, "ipv6": 40 + 8}
INSTANCES = [IPP.replace(" 0.", f" {port}.") for port in range(10)]


def test_section_11_multicast_goes_from_port_5353_to_the_group(served, family):
    packet = served.ask(query(HOST, "A"), family)
    assert (packet.destination, packet.port) == (GROUPS[family], MDNS_PORT)
    assert (packet.source_port, packet.ttl) == (MDNS_PORT, 255)


def test_section_11_multicast_is_of_the_link_whatever_its_source(dual, family):
    dual.start()
    stranger = dual.add_host("10.1.2.3").network
    enable_ipv6(stranger, "eth0", "fd00:99::1/64")
    # No source is left but that of the other network.
    stranger.ip("addr flush dev eth0 scope link")
    asking = Asker(stranger, "eth0")
    try:
        packet = dual.ask(query(HOST, "A"), family, asking)
    finally:
        asking.close()
    assert (packet.destination, packet.port) == (GROUPS[family], MDNS_PORT)


def test_section_15_question_of_another_program_with_the_same_address_and_port(served, family):
    """Its own packets the responder knows by more than their source."""
    inside = Asker(served.router.network, "br0")
    try:
        served.rest(family, PDL)
        assert has(served.ask(query(PDL, "TXT"), family, inside), PDL, "TXT")
    finally:
        inside.close()


def test_section_17_packets_fit_the_link_and_further_ones_hold_the_rest(ten, family):
    since = ten.capture.mark()
    ten.asker.send(query(IPP_TYPE, "ANY", QU), family)
    ten.wait(lambda one: has(one, IPP_TYPE, "PTR"), since, family)
    told = set()

    def all_are_told():
        for packet in ten.heard(since, family):
            told.update(one.data for one in packet.message.answers if one.name == IPP_TYPE)
        return told >= set(INSTANCES)

    ten.router.daemon.wait_until(all_are_told, "all printers")
    longest = max(len(packet.payload) for packet in ten.heard(0, family))
    assert 1000 < longest <= MTU - HEADERS[family]


def test_section_6_7_what_does_not_fit_is_said_to_be_truncated(ten, family):
    questions = [question(instance, "TXT") for instance in INSTANCES[:8]]
    packet = ten.ask(message(questions, ident=5), family, port=0)
    assert packet.message.flags == 0x8400 | TRUNCATED
    assert len(packet.payload) <= MTU - HEADERS[family]
    whole = ten.ask(message(questions[:2], ident=6), family, port=0)
    assert whole.message.flags == 0x8400
    assert len(whole.message.answers) == 2


def test_section_17_record_longer_than_a_packet_goes_alone(dual):
    # IPv6 needs 1,280.
    dual.router.network.ip("link set br0 mtu 400")
    # In fragments.
    dual.allow_malformed(lambda packet: b"NNNN" in packet.payload)
    dual.router.plug_in(0, "M" * 15, "N" * 20, "A," * 12 + "A")
    dual.start()
    owner = f"{'M' * 15} {'N' * 20} (aa:bb:cc) 0.{IPP_TYPE}"
    listening = dual.asker.socket("ipv4")
    listening.settimeout(10)
    dual.router.daemon.wait_for_line("[Bonjour] device insert lp0")
    found = []
    while not found:
        heard = packets.parse(listening.recv(9000))
        found = [one for one in heard.answers if (one.name, one.type) == (owner, "TXT")]
    assert sum(1 + len(text) for text in found[0].data) > 400 - HEADERS["ipv4"]
    assert len(heard.answers) == 1


def test_section_18_14_names_in_data_for_conventional_resolvers_are_not_compressed(served, family):
    packet = served.ask(query(IPP, "SRV", ident=1), family, port=0)
    # Priority, weight, port 631, target.
    assert packets.hexbytes("0000 0000 0277") + packets.name(HOST) in packet.payload
