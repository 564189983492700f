"""DNS messages: bytes written by hand become packets, packets become records to look at.

Reading is done by dnspython, which shares no code with the daemon.
"""

import dataclasses
import struct

import dns.exception
import dns.name
import dns.rdata
import dns.rdatatype
import dns.wire

_CLASS_IN = 1
_TOP_BIT = 0x8000

# A response without records: every host receives it and none reacts.
HARMLESS = bytes.fromhex("0000 8400 0000 0000 0000 0000")


def hexbytes(text):
    """Bytes of hexadecimal text in which each line may end with a # comment, and in which 'text'
    in single quotes stands for its characters: "05 'local' 00  # the name"."""
    result = bytearray()
    for line in text.splitlines():
        while line:
            before, quote, rest = line.partition("'")
            plain, comment, _ = before.partition("#")
            result += bytes.fromhex(plain)
            if comment or not quote:
                break
            quoted, _, line = rest.partition("'")
            result += quoted.encode()
    return bytes(result)


def name(text):
    """Wire form of a name in which dots separate the labels, for instance "_ipp._tcp.local"."""
    labels = [label.encode() for label in text.split(".") if label]
    return b"".join(bytes([len(label)]) + label for label in labels) + b"\0"


def question(owner, rrtype="PTR", rrclass=_CLASS_IN):
    """One question, to be put after a header. `owner` is dotted text or wire bytes."""
    wire = owner if isinstance(owner, bytes) else name(owner)
    return wire + struct.pack("!HH", dns.rdatatype.from_text(rrtype), rrclass)


def header(questions=0, answers=0, authority=0, additional=0, flags=0, ident=0):
    return struct.pack("!6H", ident, flags, questions, answers, authority, additional)


def query(*questions, flags=0, ident=0, count=None):
    """A query with these questions, each made by question() or given as (owner, type).

    `count` is the number of questions that the header claims, by default the true one.
    """
    wires = [one if isinstance(one, bytes) else question(*one) for one in questions]
    claimed = len(wires) if count is None else count
    return header(claimed, flags=flags, ident=ident) + b"".join(wires)


class Malformed(AssertionError):
    """A packet that an independent parser does not accept."""


@dataclasses.dataclass(frozen=True)
class Question:
    """`unicast_response` is the top bit of the class (RFC 6762, section 5.4)."""

    name: str
    type: str
    unicast_response: bool


@dataclasses.dataclass(frozen=True)
class Record:
    """A resource record; `data` is text for A and PTR, (port, target) for SRV, a tuple of strings
    for TXT and dnspython's text for every other type. `cache_flush` is the top bit of the class
    (RFC 6762, section 10.2)."""

    name: str
    type: str
    cache_flush: bool
    ttl: int
    data: object


@dataclasses.dataclass(frozen=True)
class Message:
    ident: int
    flags: int
    questions: tuple
    answers: tuple
    authority: tuple
    additional: tuple


def _text(labels):
    return b".".join(label for label in labels if label).decode(errors="backslashreplace")


def _class(value):
    """The top bit of a class field, whose other bits must be IN."""
    if value & ~_TOP_BIT != _CLASS_IN:
        raise Malformed(f"class {value:#06x}")
    return bool(value & _TOP_BIT)


def _question(parser):
    owner = parser.get_name()
    rrtype, rrclass = parser.get_struct("!HH")
    return Question(_text(owner.labels), dns.rdatatype.to_text(rrtype), _class(rrclass))


def _data(rrtype, rdata):
    if rrtype == dns.rdatatype.SRV:
        if rdata.priority or rdata.weight:
            raise Malformed(f"SRV priority {rdata.priority}, weight {rdata.weight}")
        return rdata.port, _text(rdata.target.labels)
    if rrtype == dns.rdatatype.PTR:
        return _text(rdata.target.labels)
    if rrtype == dns.rdatatype.TXT:
        return tuple(string.decode(errors="backslashreplace") for string in rdata.strings)
    return rdata.to_text()


def _record(parser):
    owner = parser.get_name()
    rrtype, rrclass, ttl, length = parser.get_struct("!HHIH")
    cache_flush = _class(rrclass)
    with parser.restrict_to(length):
        rdata = dns.rdata.from_wire_parser(_CLASS_IN, rrtype, parser)
    rrtype_text = dns.rdatatype.to_text(rrtype)
    return Record(_text(owner.labels), rrtype_text, cache_flush, ttl, _data(rrtype, rdata))


def parse(payload):
    """The message in `payload`, whole: raises Malformed for anything dnspython does not accept,
    for classes other than IN and for bytes left over."""
    try:
        parser = dns.wire.Parser(payload)
        ident, flags, *counts = parser.get_struct("!6H")
        sections = [tuple(_question(parser) for _ in range(counts[0]))]
        for count in counts[1:]:
            sections.append(tuple(_record(parser) for _ in range(count)))
        if parser.remaining():
            raise Malformed(f"{parser.remaining()} bytes after the last record")
    except (dns.exception.DNSException, struct.error, ValueError) as problem:
        raise Malformed(f"{type(problem).__name__}: {problem}\n{payload.hex(' ')}") from problem
    return Message(ident, flags, *sections)


def summary(payload):
    """One line about the message, for logs and failures."""
    try:
        message = parse(payload)
    except Malformed:
        return f"{len(payload)} bytes that are no whole message"
    kind = "response" if message.flags & 0x8000 else "query"
    parts = [f"{one.name} {one.type}?" for one in message.questions]
    for records in (message.answers, message.authority, message.additional):
        parts += [
            f"{one.name} {one.type}{' goodbye' if one.ttl == 0 else ''}" for one in records
        ]
    return f"{kind}: " + (", ".join(parts) or "no records")
