"""Where the responder is not what RFC 6762 and RFC 6763 describe, as docs/conformance.md says."""

import pytest
import wire
from lab.packets import hexbytes
from lab.printers import Printer

pytestmark = pytest.mark.release

SERVICES = "09 '_services' 07 '_dns-sd' 04 '_udp' 05 'local' 00"
REVERSE = "03 '254' 02 '77' 03 '168' 03 '192' 07 'in-addr' 04 'arpa' 00"
BROWSE_IPP = hexbytes(f"{wire.QUERY_1} {wire.IPP} 000C 0001")


def test_packets_leave_for_the_group_from_the_mdns_port_with_an_ip_time_to_live_of_1(
    lab, daemon_with_printer
):
    assert {(each.source_port, each.destination, each.port, each.ttl) for each in lab.sent()} == {
        (5353, "224.0.0.251", 5353, 1)
    }


def test_questions_for_service_types_and_for_addresses_are_not_answered(lab, daemon_with_printer):
    for name in (SERVICES, REVERSE):
        assert lab.ask(hexbytes(f"{wire.QUERY_1} {name} 000C 0001")) == []


def test_response_code_and_network_of_a_question_do_not_matter(lab, daemon_with_printer):
    with_code = hexbytes(f"0000 0003 0001 0000 0000 0000 {wire.IPP} 000C 0001")
    assert lab.ask(with_code) == [wire.IPP_RECORDS]
    assert lab.ask(BROWSE_IPP, host=lab.add_host("10.1.2.3")) == [wire.IPP_RECORDS]


def test_new_address_is_not_announced(lab, router, daemon_with_printer):
    since = lab.capture.mark()
    router.set_address("192.168.77.5/24")
    # Two whole looks at the printers pass.
    for _ in range(2):
        router.status_file.replace(Printer(0).record())
        router.status_file.wait_until_read()
    assert lab.sent(since) == []


def test_conflict_over_a_service_name_goes_unnoticed(lab, router, daemon, host):
    """Another host claims the instance while its probe is on the link."""
    router.plug_in(0)
    lab.wait_for_packet(wire.IPP_PROBE)
    host.send(
        hexbytes(
            f"""{wire.RESPONSE_1}
            {wire.INSTANCE} {wire.IPP} 0021 8001 {wire.TTL_120}
            0013 0000 0000 0277 05 'other' 05 'local' 00"""
        )
    )
    lab.wait_for_transmissions(wire.IPP_RECORDS)
    assert lab.ask(BROWSE_IPP) == [wire.IPP_RECORDS]
    assert wire.IPP_GOODBYE not in {packet.payload for packet in lab.sent()}


def test_longest_answer_fits_an_ethernet_frame(lab, router):
    """The longest name and the longest text that a printer can have."""
    commands = ",".join(f"LANG{number:02}XXXX" for number in range(4))
    router.plug_in(0, "M" * 51, "N" * 63, commands)
    router.start("GLXE4800b5")
    lab.allow_malformed(lambda packet: b"MMM" in packet.payload)
    announced = lab.wait_for_packet(
        lambda packet: packet.payload[2] == 0x84 and b"_universal" in packet.payload
    )
    assert 1100 < len(announced[0].payload) <= 1500 - 28
