#!/usr/bin/python3
"""Makes the seed inputs of the fuzz targets: make_corpus.py DIRECTORY, with one in it a target.

An input is a script of fixed and counted fields; the target that reads it says which
(fuzz_<target>.cpp). The seeds show each of its steps once with contents that mean something, so
that the fuzzer begins inside. The same inputs come out each time.
"""

import pathlib
import shutil
import struct
import sys

DEVICE = b"T5140_00-11-22-AA-BB-CC"
A, PTR, TXT, AAAA, SRV, NSEC, ANY = 1, 12, 16, 28, 33, 47, 255
CLASS_IN = 1


def u8(value):
    return struct.pack(">B", value)


def u16(value):
    return struct.pack(">H", value)


def u32(value):
    return struct.pack(">I", value)


def text(value):
    """A byte that counts, and the bytes."""
    return u8(len(value)) + value


def block(value):
    """A word that counts, and the bytes."""
    return u16(len(value)) + value


def name(dotted):
    return b"".join(text(label) for label in dotted.split(b".") if label) + b"\0"


def question(owner, kind, record_class=CLASS_IN):
    return name(owner) + u16(kind) + u16(record_class)


def record(owner, kind, ttl, data):
    return question(owner, kind) + u32(ttl) + block(data)


def message(*parts, flags=0, questions=None, answers=0, ident=0):
    count = len(parts) - answers if questions is None else questions
    return struct.pack(">HHHHHH", ident, flags, count, answers, 0, 0) + b"".join(parts)


# Sequences of datagrams into one answering state.

OFFICE = b"Office 0 (aa:bb:cc) 0"  # the first printer that the target registers


def answering(*steps, printers=2, connected=0, device=DEVICE):
    return u8(connected << 7 | printers) + text(device) + b"".join(steps)


def datagram(content, sender=9):
    return u8(0) + u8(sender) + block(content)


def built(*parts, questions=1):
    return u8(2) + u8(questions) + u8(len(parts)) + b"".join(parts)


def registered(service, txt=b"txtvers=1", kind=0, length=0, port=631):
    return u8(4) + u8(length << 4 | kind) + text(service) + block(txt) + u16(port)


def unregistered(service, kind=0):
    return u8(5) + u8(kind) + text(service)


def surroundings(address=None, failures=None, device=None, restart=False):
    fields = [
        (1, None if address is None else u32(address)),
        (2, None if failures is None else u8(failures)),
        (4, None if device is None else text(device)),
        (8, b"" if restart else None),
    ]
    what = sum(bit for bit, field in fields if field is not None)
    return u8(7) + u8(what) + b"".join(field for _, field in fields if field is not None)


def answer_seeds():
    host = DEVICE + b".local"
    browse = message(question(b"_ipp._tcp.local", PTR))
    instance = OFFICE + b"._ipp._tcp.local"
    pointer = message(
        question(b"_ipp._tcp.local", PTR), text(b"Office") + b"\xc0\x0c" + u16(SRV) + u16(CLASS_IN)
    )
    yield "host_a", answering(datagram(message(question(host, A))))
    yield "host_upper_case", answering(datagram(message(question(host.upper(), A))))
    yield "host_other_types", answering(
        *(datagram(message(question(host, kind))) for kind in (AAAA, ANY, PTR, 257))
    )
    yield "host_leftovers", answering(datagram(message(question(host, A))), datagram(b"\0" * 12))
    yield "host_zero_in_label", answering(
        datagram(message(text(DEVICE + b"\0x") + text(b"local") + b"\0" + u16(A) + u16(CLASS_IN)))
    )
    yield "host_long_name", answering(
        datagram(message(question(b"a" * 60 + b".local", A))), device=b"a" * 60
    )
    yield "host_no_name", answering(datagram(message(b"\0\0\1\0\1")), device=b"")
    yield "browse_ipp", answering(datagram(browse))
    yield "browse_pdl", answering(datagram(message(question(b"_pdl-datastream._tcp.local", PTR))))
    yield "browse_both", answering(
        datagram(
            message(question(b"_ipp._tcp.local", PTR), question(b"_pdl-datastream._tcp.local", PTR))
        )
    )
    yield "browse_any_domain", answering(datagram(message(question(b"_ipp._udp.example", ANY))))
    yield "browse_many_printers", answering(datagram(browse), printers=10, connected=1)
    yield "subtype", answering(
        datagram(message(question(b"_universal._sub._ipp._tcp.local", PTR))),
        datagram(message(question(b"_universal._sub._printer._tcp.local", PTR))),
    )
    yield "instance", answering(
        datagram(message(question(instance, SRV))),
        datagram(message(question(b"Other._ipp._tcp.local", SRV))),
    )
    yield "pointer_not_followed", answering(datagram(pointer))
    yield "pointer_lookalikes", answering(
        *(datagram(message(bytes([mark]) + b"\x0c" + b"_ipp" * 70)) for mark in (0x40, 0xC1, 0xFF))
    )
    yield "known_answer", answering(
        datagram(
            message(
                question(b"_printer._tcp.local", PTR),
                record(b"_ipp._tcp.local", PTR, 4500, name(instance)),
                answers=1,
            )
        )
    )
    yield "count_zero", answering(
        datagram(message(question(b"a.local", A), browse[12:], questions=0))
    )
    yield "count_too_large", answering(datagram(message(browse[12:], questions=65535)))
    yield "ignored_flags", answering(
        *(datagram(message(browse[12:], flags=flags)) for flags in (0x8400, 0x0100, 0x0200, 0x2800))
    )
    yield "own_packet", answering(datagram(browse, sender=1))
    yield "cut", answering(*(datagram(browse[:size]) for size in (1, 2, 12, 13, 14, 17, 18, 22)))
    yield "cut_after_longer", answering(datagram(browse), datagram(browse[:16]), datagram(b"\0\0"))
    yield "zeros", answering(datagram(b"\0" * 1518))
    yield "single_letter_labels", answering(datagram(message(b"\1a" * 700 + b"\4_ipp")))
    yield "longest_message", answering(
        datagram(message(*[question(b"a.local", A)] * 100, question(b"_ipp._tcp.local", PTR)))
    )
    yield "built_instance", answering(built(u8(2) + u8(1), u8(4), u8(9), u8(10), u8(11)))
    yield "built_two_questions", answering(
        built(u8(6), u8(9), u8(12), u8(0), u8(10), u8(11), u8(5), u8(9), u8(11), questions=3)
    )
    yield "built_host", answering(built(u8(1), u8(10), u8(11)))
    yield "services_come_and_go", answering(
        registered(b"Attic", kind=2, port=515),
        datagram(message(question(b"_printer._tcp.local", ANY))),
        registered(b"Att", kind=2, port=515),
        unregistered(b"Att", kind=2),
        datagram(message(question(b"_printer._tcp.local", ANY))),
        connected=1,
    )
    yield "service_types", answering(
        *(registered(b"S%d" % kind, kind=kind) for kind in range(8)), datagram(browse), printers=0
    )
    yield "service_texts", answering(
        *(
            registered(b"T%d" % length, b"a=b\n\nc=" + b"d" * 130, length=length)
            for length in range(5)
        ),
        datagram(browse),
        printers=0,
        connected=1,
    )
    yield "service_long_text", answering(
        registered(b"n" * 64 + b"." + b"m" * 63, b"k=" + b"v" * 1100), datagram(browse), connected=1
    )
    yield "service_dots", answering(registered(b"..a..b.", b"\n\n"), datagram(browse), printers=0)
    yield "service_raw", answering(
        u8(6) + text(b"raw") + text(b"_ipp") + text(b".local") + u32(631),
        u8(6)
        + text(b"r" * 140)
        + text(b"_ipp._tcp" + b"x" * 40)
        + text(b".example")
        + u32(1 << 31),
        datagram(browse),
        printers=0,
    )
    yield "address_changes", answering(
        surroundings(address=0x0A000001),
        datagram(message(question(host, A))),
        surroundings(address=0xFFFFFFFF),
        datagram(browse),
        datagram(browse, sender=1),
    )
    yield "address_fails", answering(
        surroundings(failures=0b00000101), datagram(browse), datagram(message(question(host, A)))
    )
    yield "renamed", answering(
        surroundings(device=b"router-1"),
        datagram(message(question(b"router-1.local", A))),
        surroundings(restart=True),
        datagram(message(question(b"Router-1.local", A))),
    )


# Datagrams into the probe.


def probing(rule, *deliveries, device=DEVICE, first=None, stop=0):
    start = u8(0) if first is None else u8(1) + text(first)
    return rule + text(device) + start + u16(stop) + b"".join(deliveries)


def rule(field, content):
    return u8(len(field)) + field + block(content)


def heard(content, sender=9):
    return u8(0) + u8(sender) + block(content)


def echoed(tail=b"", sender=9):
    return u8(1) + u8(sender) + text(tail)


def echoed_often(count, sender=9):
    return u8(2) + u8(sender) + u16(count - 1)


def heard_often(content, count, sender=9):
    return u8(3) + u8(sender) + text(content) + u8(count - 1)


def probe_seeds():
    claim = message(question(DEVICE + b".local", A))
    no_rule = rule(b"", b"")
    yield "silence", probing(rule(DEVICE, claim))
    yield "claimed_once", probing(rule(DEVICE, claim[:-10]), heard(claim))
    yield "claimed_twice", probing(no_rule, echoed(), echoed(b"\5local\0\0\1\0\1"))
    yield "own_claim", probing(no_rule, heard(claim, sender=1))
    yield "longer_label", probing(
        rule(DEVICE, message(text(DEVICE + b"x"))), heard(message(text(DEVICE + b"x")))
    )
    yield "shorter_label", probing(
        rule(DEVICE, message(text(DEVICE[:-1]))), heard(message(text(DEVICE[:-1])))
    )
    yield "other_case", probing(rule(DEVICE, claim.lower()), heard(claim.lower()))
    yield "eleven_others", probing(no_rule, heard_often(message(b"\1a\0"), 11))
    yield "twelve_others", probing(no_rule, heard_often(message(b"\1a\0"), 12))
    yield "others_then_claim", probing(
        no_rule, heard_often(b"x", 11), echoed(), heard_often(b"x", 16)
    )
    yield "thousand_claims", probing(no_rule, echoed_often(1001))
    yield "no_room_for_number", probing(no_rule, echoed_often(3), device=b"a" * 64)
    yield "room_for_one_digit", probing(no_rule, echoed_often(12), device=b"a" * 62)
    yield "numbered_before", probing(no_rule, echoed(), first=DEVICE + b"-7")
    yield "no_name", probing(rule(b"", message(b"\0")), heard(message(b"\0")), device=b"")
    yield "stopped_at_once", probing(no_rule, echoed(), stop=1)
    yield "stopped_listening", probing(no_rule, heard_often(b"x", 5), stop=3)
    yield "stopped_pausing", probing(no_rule, echoed_often(5), stop=6)
    yield "full_field", probing(rule(b"a" * 65, message(text(b"a" * 65))))
    yield "label_beyond_field", probing(rule(b"a" * 64, message(text(b"a" * 64 + b"\0\0"))))
    yield "zeros_behind_name", probing(rule(b"a", message(text(b"a\0\0\0"))))
    yield "cut_label", probing(rule(b"abc", message(u8(3) + b"ab")), heard(claim[:20]))
    yield "twelve_bytes", probing(rule(b"", b"\0" * 12), heard(b"\0" * 12))


# Status files over several passes.

FRESH, UNREADABLE, CUT, MORE = 4, 1, 2, 3


def monitored(*passes, connected=1, device=DEVICE):
    return b"\x12\x34\x56" + u8(connected) + text(device) + b"".join(passes)


def looked(mode, field=b"", repeat=None, ident=None, deaf=False, built_cut=None, build=None):
    what = mode
    tail = field
    if repeat is not None:
        what |= 8
        tail += u8(repeat)
    if ident is not None:
        what |= 16
        tail += block(ident)
    if deaf:
        what |= 32
    if built_cut is not None:
        what |= 64
        tail += u16(built_cut)
    if build is not None:
        what |= 128
        tail += u8(build[0]) + u8(build[1])
    return u8(what) + tail


def fresh(content, **more):
    return looked(FRESH, block(content), **more)


def printer(port, manufacturer=b"HP", model=b"Model 12", commands=b"PJL,PCL", last=b""):
    return b"\n".join([b"usblp%d" % port, manufacturer, model, commands, last, b""])


def device_id(content):
    return u16(len(content) + 2) + content


def status_seeds():
    one = printer(0)
    two = printer(0) + printer(1, b"Canon", b"LBP 6", b"UFR,PCL")
    yield "one_printer", monitored(fresh(one), fresh(one), fresh(b""))
    yield "two_printers", monitored(fresh(one), fresh(two), fresh(printer(1)), connected=0)
    yield "ten_printers", monitored(
        fresh(b"".join(printer(port) for port in range(10))), fresh(b"")
    )
    yield "unreadable", monitored(fresh(one), looked(UNREADABLE), fresh(b""))
    yield "each_kind", monitored(*(fresh(one, build=(0, kind)) for kind in range(6)))
    yield "cut_file", monitored(
        *(
            part
            for size in (8, 20, 19, 11, 10, 7, 5)
            for part in (fresh(two), looked(CUT, u16(size)))
        )
    )
    yield "growing_file", monitored(
        fresh(one[:10]), looked(MORE, block(one[10:25])), looked(MORE, block(one[25:]))
    )
    yield "cut_under_builder", monitored(fresh(one, built_cut=16), fresh(one), fresh(b""))
    yield "same_port_twice", monitored(
        fresh(printer(3) + printer(3, b"Brother", b"HL")), fresh(b"")
    )
    yield "changed_while_there", monitored(
        fresh(printer(2)), fresh(printer(2, b"Epson")), fresh(b""), fresh(printer(2)), fresh(b"")
    )
    yield "prefix_names", monitored(fresh(printer(1, b"H", b"P")), fresh(printer(1) + printer(2)))
    yield "token_in_later_line", monitored(fresh(b"x\nusblp4\nM\nC\n\n" + one))
    yield "no_digit", monitored(fresh(b"usblpx\nM\nN\nC\n\n" + one), fresh(b"usblp"))
    yield "empty_model", monitored(
        fresh(printer(5, model=b""), ident=device_id(b"MFG:X;MODEL:Y 1;CMD:Z;"), build=(5, 2)),
        fresh(b""),
    )
    yield "empty_model_deaf", monitored(fresh(printer(5, model=b""), deaf=True), fresh(b""))
    yield "empty_model_no_key", monitored(fresh(printer(5, model=b""), ident=device_id(b"MDL:Y;")))
    yield "long_lines", monitored(
        fresh(printer(6, b"M" * 20, b"N" * 70, b"C" * 118), build=(6, 2)),
        fresh(printer(6, b"M" * 60, b"N" * 60, b"C" * 119), build=(6, 1)),
        device=b"d" * 64,
    )
    # Texts of 512 and 513 characters, key lines of 127 and 128.
    yield "text_at_limit", monitored(
        fresh(printer(8, b"M" * 10, b"N" * 40, b"C" * 100), build=(8, 2)),
        fresh(printer(8, b"M" * 12, b"N" * 39, b"C" * 100), build=(8, 2)),
        device=b"d" * 49,
    )
    yield "key_line_at_limit", monitored(
        fresh(printer(8, b"M", b"N", b"C" * 118), build=(8, 2)),
        fresh(printer(8, b"M", b"N", b"C" * 119), build=(8, 2)),
        device=b"d",
    )
    yield "token_at_end", monitored(fresh(b"a\nb\nc\nusblp"), fresh(one + b"a\nb\nc\nd\ne\nusblp"))
    yield "many_commands", monitored(
        fresh(printer(7, commands=b",A," * 37), build=(7, 3)),
        fresh(printer(7, commands=b",".join([b"PCL"] * 128)), build=(7, 3)),
        fresh(printer(7, commands=b"x" * 600), build=(7, 3)),
    )
    yield "longest_text", monitored(
        *(
            fresh(printer(8, b"M" * 15, b"N" * 63, b"ABCD,EFGH" + b"i" * extra), build=(8, 2))
            for extra in (40, 50, 60, 70)
        ),
        device=b"d" * 64,
    )
    yield "no_commands", monitored(fresh(printer(9, commands=b""), build=(9, 1)))
    yield "full_file", monitored(
        fresh(printer(0) + printer(1), repeat=255), fresh(b"x" * 200, repeat=255)
    )
    yield "full_file_last_record", monitored(fresh(b"y" * 160 + b"\n" * 5 + one, repeat=240))
    yield "zero_byte", monitored(fresh(one + b"\0" + printer(1)), fresh(b"\0" + one))
    yield "line_feeds", monitored(fresh(b"\n" * 250, repeat=200), fresh(b"usblp0" + b"\n" * 20))


# Device ids.


def identified(content, kind=2, manufacturer=b"HP", commands=b"PJL,PCL"):
    return u8(kind) + text(manufacturer) + text(commands) + device_id(content)


def device_id_seeds():
    yield "usual", identified(b"MFG:X;MODEL:Y;CMD:Z;")
    yield "first", identified(b"MODEL:LaserJet 4;MFG:HP;", manufacturer=b"")
    yield "second_place", identified(b"xMODEL:Y;")
    yield "third_place", identified(b"xxMODEL:Y;")
    yield "other_key", identified(b"XMODEL:N;MODELS:N;MODEL N;;MODEL:Y")
    yield "short_key", identified(b"MFG:X;MDL:Y;")
    yield "empty_value", identified(b"MODEL:;")
    yield "no_end", identified(b"MFG:X;MODEL:Y")
    yield "overlapping", identified(b"MODELMODEL:N;MODEL;MODEL:Y;")
    yield "at_limit", identified(b"A:B;MODEL:" + b"m" * 63 + b";")
    yield "above_limit", identified(b"A:B;MODEL:" + b"m" * 64 + b";MODEL:Y;")
    yield "zero_byte", identified(b"MODEL:Y\0Z;")
    yield "key_at_end", identified(b"x" * 504 + b";MODEL")
    yield "value_at_end", identified(b"x" * 500 + b";MODEL:Y")
    yield "full_block", identified(b"MFG:" + b"z" * 506)
    yield "too_short", u8(1) + text(b"HP") + text(b"") + b"\0"


# Record encoding.


def encoded(labels, *records, capacity=1506, start=12, questions=0):
    return labels + u16(capacity) + u16(start) + u8(questions) + b"".join(records)


def labels(content, capacity=1518, position=12, separator=b".", limit=64):
    return u16(capacity) + u16(position) + separator + u8(limit) + block(content)


KINDS = {A: 0, PTR: 1, TXT: 2, SRV: 3, NSEC: 4, ANY: 5, AAAA: 6, 257: 7}


def put(kind, owner=b"host.local", data=b"", flush=0, repeat=None, ttl=120, port=631):
    what = flush << 7 | (0 if repeat is None else 64) | KINDS[kind]
    field = u8(what) + text(owner) + block(data)
    if repeat is not None:
        field += u8(repeat)
    field += u32(ttl) + u32(port)
    if kind == NSEC:
        field += u16(12) + u8(5) + b"\0\0\x80\0\x40"
    return field


def encode_seeds():
    service = [
        put(A, data=b"192.168.1.1", flush=1),
        put(PTR, b"_ipp._tcp.local", b"Office._ipp._tcp.local", ttl=4500),
        put(SRV, b"Office._ipp._tcp.local", b"host.local", flush=1),
        put(TXT, b"Office._ipp._tcp.local", b"txtvers=1\nqtotal=1\n\nty=x", flush=1, ttl=4500),
        put(PTR, b"_universal._sub._ipp._tcp.local", b"Office._ipp._tcp.local", ttl=4500),
    ]
    plain = labels(b"a..b.")
    yield "service", encoded(plain, *service)
    yield "service_cut", encoded(plain, *service, capacity=100)
    yield "probe", encoded(
        labels(b""),
        put(ANY, flush=1),
        put(A, data=b"10.0.0.1"),
        put(SRV, data=b"host.local"),
        questions=1,
    )
    yield "each_type", encoded(plain, *(put(kind, data=b"127.1") for kind in KINDS))
    for limit, separator in ((64, b"."), (128, b"\n")):
        for size in (limit - 1, limit, limit + 1, 2 * limit + 3):
            content = b"x" * size + separator + b"y"
            yield f"labels_{limit}_{size}", encoded(
                labels(content, separator=separator, limit=limit),
                put(TXT if limit == 128 else PTR, data=content),
            )
    for capacity in (0, 12, 13, 20, 21, 22):
        yield f"labels_in_{capacity}", encoded(labels(b"host.local", capacity), put(A, data=b"x"))
    for capacity in (11, 12, 20, 22, 24, 26, 28, 30, 31, 32, 33, 34, 36):
        yield f"records_in_{capacity + 12}", encoded(
            plain,
            *(put(kind, data=b"1.2.3.4") for kind in (A, PTR, TXT, SRV, NSEC)),
            capacity=capacity,
        )
    yield "behind_the_end", encoded(labels(b"a.b", 10, 4000), *service, capacity=12, start=60000)
    yield "full_fields", encoded(
        plain, put(TXT, b"abcdefgh.", b"0123456789\n", repeat=250), put(PTR, b"x", b"y", repeat=250)
    )
    yield "empty_texts", encoded(
        labels(b"..."), put(PTR, b"", b""), put(TXT, b"", b"\n"), put(SRV, b"", b"")
    )
    yield "bad_address", encoded(plain, put(A, data=b"192.168.1.256"), put(A, data=b""))


# Validation, registration, the registry.


def sequence(*steps, connected=1, address=0xC0A80101, device=DEVICE):
    return u8(connected) + u32(address) + text(device) + b"".join(steps)


REGISTER, UNREGISTER, ADD, REMOVE, OTHER, FIRST, RENAME = 0, 2, 3, 4, 5, 6, 7


def step(operation, service=b"", kind=None, domain=None, txt=None, length=None, port=631, index=0):
    what = index << 1
    field = text(service)
    if kind is not None:
        what |= 1
        field += text(kind)
    if domain is not None:
        what |= 8
        field += text(domain)
    if txt is not None:
        what |= 32
        field += block(txt)
    field += u32(port)
    if length is not None:
        what |= 128
        field += u32(length & 0xFFFFFFFF)
    return u8(operation) + u8(what) + field


def registry_seeds():
    yield "one_service", sequence(
        step(REGISTER, b"Office", txt=b"txtvers=1\nqtotal=1"), step(UNREGISTER, b"Office")
    )
    yield "not_connected", sequence(
        step(REGISTER, b"Office"), step(UNREGISTER, b"Office"), connected=0
    )
    yield "each_type", sequence(
        *(step(REGISTER, b"Office", index=index, port=9100) for index in range(4)),
        step(FIRST),
        *(step(UNREGISTER, b"Office", index=index) for index in range(4)),
    )
    yield "prefixes", sequence(
        step(ADD, b"Printer 1", b"_ipp._tcp"),
        step(ADD, b"Printer 2", b"_ipp._tcp"),
        step(ADD, b"Printer", b"_ipp._tc"),
        step(REMOVE, b"Printer", b"_ipp"),
        step(REMOVE, b"", b"", b""),
        step(REMOVE, b"", b"", b""),
    )
    for middle in (b"a", b"b", b"c"):
        yield "remove_" + middle.decode(), sequence(
            *(step(ADD, service) for service in (b"a", b"b", b"c")),
            step(REMOVE, middle),
            step(FIRST),
            step(ADD, b"d"),
        )
    yield "lengths", sequence(
        *(step(REGISTER, b"n" * size) for size in (0, 127, 128, 129)),
        *(step(REGISTER, b"t", b"_" + b"t" * (size - 5) + b"._ab"[:4]) for size in (31, 32, 33)),
        *(step(REGISTER, b"d", domain=b"." + b"d" * (size - 1)) for size in (32, 33)),
    )
    yield "types", sequence(
        *(
            step(REGISTER, b"Office", kind)
            for kind in (
                b"",
                b"ipp._tcp",
                b"_._tcp",
                b"_ipp.tcp",
                b"_ipp",
                b"_ipp.",
                b"_i._",
                b"_a.b_",
            )
        )
    )
    yield "domains", sequence(
        *(
            step(REGISTER, b"Office", domain=domain)
            for domain in (b"local", b".LOCAL", b".local.", b"")
        )
    )
    yield "numbers", sequence(
        *(step(REGISTER, b"p%d" % port, port=port) for port in (0, 65535, 65536, 0xFFFFFFFF)),
        *(step(REGISTER, b"l%d" % length, txt=b"a=b", length=length) for length in (0, -1, 1, 9)),
        *(step(REGISTER, b"m%d" % length, length=length) for length in (0, -1, 1, 2**31 - 1)),
    )
    yield "cut_texts", sequence(
        step(ADD, b"n" * 200, b"_t" * 30, b".d" * 30),
        step(REMOVE, b"n" * 128, b"_t" * 16, b".d" * 16),
        step(ADD, b"n" * 200),
    )
    yield "long_packets", sequence(
        step(REGISTER, b"n" * 128, b"_ipp._tcp", txt=b"k=" + b"v" * 1200),
        step(REGISTER, b"x." * 64, b"_ipp._tcpudp", txt=b"k\n" * 600),
        step(UNREGISTER, b"n" * 128),
        device=b"d" * 64,
    )
    yield "part_of_registered", sequence(
        step(REGISTER, b"Office printer"),
        u8(REGISTER) + u8(16) + text(b"") + u8(0) + u8(6) + u32(631),
        u8(UNREGISTER) + u8(16) + text(b"") + u8(0) + u8(14) + u32(631),
    )
    yield "shared_text", sequence(
        step(REGISTER, b"a", txt=b"a=b"),
        u8(REGISTER) + u8(64) + text(b"b") + u32(80),
        step(UNREGISTER, b"a"),
        step(UNREGISTER, b"b"),
    )
    yield "other_operations", sequence(
        step(ADD, b"a"),
        step(OTHER, b"a") + u8(0),
        step(RENAME) + u8(0) + text(b"renamed"),
        step(REGISTER, b"b"),
    )


SEEDS = {
    "answer": answer_seeds,
    "probe": probe_seeds,
    "status": status_seeds,
    "device_id": device_id_seeds,
    "encode": encode_seeds,
    "registry": registry_seeds,
}


def main(directory):
    shutil.rmtree(directory, ignore_errors=True)
    for target, seeds in SEEDS.items():
        (directory / target).mkdir(parents=True)
        for seed, content in seeds():
            (directory / target / seed).write_bytes(content)


if __name__ == "__main__":
    main(pathlib.Path(sys.argv[1]))
