"""Where the responder is not what RFC 6762 and RFC 6763 describe, as docs/conformance.md says."""

import pytest
import wire
from lab import packets
from lab.packets import hexbytes
from lab.printers import Printer

pytestmark = pytest.mark.release

SERVICES = "09 '_services' 07 '_dns-sd' 04 '_udp' 05 'local' 00"
TRUNCATED = f"0000 0200 0001 0000 0000 0000 {wire.IPP} 000C 0001"
ERROR_CODE = f"0000 0003 0001 0000 0000 0000 {wire.IPP} 000C 0001"


def test_packets_leave_with_an_ip_time_to_live_of_1(lab, daemon_with_printer):
    assert {packet.ttl for packet in lab.sent()} == {1}


def test_packets_leave_from_the_mdns_port_for_the_group(lab, daemon_with_printer):
    assert {(each.source_port, each.destination, each.port) for each in lab.sent()} == {
        (5353, "224.0.0.251", 5353)
    }


@pytest.mark.parametrize(
    "question",
    [
        pytest.param(f"{wire.QUERY_1} {SERVICES} 000C 0001", id="service types"),
        pytest.param(TRUNCATED, id="more known answers to follow"),
        pytest.param(f"{wire.QUERY_1} 03 '254' 02 '77' 03 '168' 03 '192' 07 'in-addr' 04 'arpa' 00"
                     " 000C 0001", id="reverse lookup"),
    ],
)  # fmt: skip
def test_question_is_not_answered(lab, daemon_with_printer, question):
    assert lab.ask(hexbytes(question)) == []


def test_query_with_a_response_code_is_answered(lab, daemon_with_printer):
    assert lab.ask(hexbytes(ERROR_CODE)) == [wire.IPP_RECORDS]


def test_question_of_a_host_in_another_network_is_answered(lab, daemon_with_printer):
    stranger = lab.add_host("10.1.2.3")
    assert lab.ask(hexbytes(f"{wire.QUERY_1} {wire.IPP} 000C 0001"), host=stranger) == [
        wire.IPP_RECORDS
    ]


def test_names_are_never_compressed(lab, daemon_with_printer):
    """No length byte of any packet is a pointer; dnspython has read them all without one."""
    for payload in {packet.payload for packet in lab.sent()}:
        message = packets.parse(payload)
        whole = 12
        for each in message.questions:
            whole += len(packets.name(each.name)) + 4
        for each in message.answers + message.authority:
            whole += len(packets.name(each.name)) + 10 + data_length(each)
        assert len(payload) == whole


def data_length(record):
    if record.type == "A":
        return 4
    if record.type == "PTR":
        return len(packets.name(record.data))
    if record.type == "SRV":
        return 6 + len(packets.name(record.data[1]))
    return sum(1 + len(string.encode()) for string in record.data)


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
    since = lab.capture.mark()
    host.send(
        hexbytes(
            f"""{wire.RESPONSE_1}
            {wire.INSTANCE} {wire.IPP} 0021 8001 {wire.TTL_120}
            0013 0000 0000 0277 05 'other' 05 'local' 00"""
        )
    )
    lab.wait_for_transmissions(wire.IPP_RECORDS)
    assert not any(packet.payload == wire.IPP_GOODBYE for packet in lab.sent(since))
    assert lab.ask(hexbytes(f"{wire.QUERY_1} {wire.IPP} 000C 0001")) == [wire.IPP_RECORDS]


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
