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


# Messages of the standard responder: to read as they are, and entries to write.


def standard_wire_seeds():
    host = name(b"host.local")
    yield "read_query", u8(1) + message(question(b"host.local", A))
    yield "read_probe", u8(1) + struct.pack(">HHHHHH", 0, 0, 1, 0, 1, 0) + (
        question(b"Printer._ipp._tcp.local", ANY, 0x8001)
        + b"\xc0\x0c"
        + struct.pack(">HHI", SRV, CLASS_IN, 120)
        + block(b"\0\0\0\0\x02\x77\x04host\xc0\x1e")
    )
    yield "read_response", u8(1) + message(
        record(b"_ipp._tcp.local", PTR, 4500, b"\x07Printer\xc0\x0c"),
        record(b"host.local", NSEC, 120, host + b"\0\1\x40"),
        record(b"host.local", TXT, 4500, text(b"txtvers=1")),
        flags=0x8400,
        answers=3,
    )
    yield "read_pointers", u8(1) + message(
        question(b"a.local", A), b"\xc0\x0c" + u16(A) + u16(1), b"\x01b\xc0\x15" + u16(A) + u16(1)
    )
    yield "read_loop", u8(1) + message(b"\xc0\x0c" + u16(A) + u16(1))
    yield "read_cut_counts", u8(1) + message(question(b"a.local", A), questions=600)
    parts = b"\x02\x03\x00"  # a name of two labels
    for index, kind in enumerate(("a", "ptr", "txt", "aaaa", "srv", "nsec")):
        data = text(b"k=v") if kind == "txt" else parts if kind in ("ptr", "srv", "nsec") else b""
        entry = b"\1" + parts + u8(index) + u16(0x8001) + u32(120) + data
        yield "write_" + kind, u8(0) + u16(500) + u8(0) + b"\1" + parts + u16(ANY) + entry * 3
    full = b"\1" + parts + u8(2) + u16(1) + u32(4500) + text(b"v" * 200)
    yield "write_full", u8(0) + u16(300) + u8(1) + b"\0" + full * 4


# Sequences into the standard responder's protocol.

HEAR, LINK, ADD_SERVICE, REMOVE_SERVICE, ECHO, WAIT, BUILT = 0, 1, 2, 4, 6, 7, 10


def playing(*steps, host=b"host"):
    return text(host) + u8(1) + b"".join(steps)


def hear(content, how=0):
    return u8(HEAR) + block(content) + u8(how)


def wait(milliseconds):
    return u8(WAIT) + u8(1) + u16(milliseconds)


def added(kind=0, txt=b"txtvers=1", port=631, instance=None):
    named = b"" if instance is None else text(instance)
    chosen = 0 if instance is None else 128
    return u8(ADD_SERVICE | kind << 4 | chosen) + named + block(txt) + u16(port)


def standard_core_seeds():
    settled = added() + wait(5000)
    yield "alone", playing(wait(1000), wait(3000))
    yield "printer", playing(settled, u8(REMOVE_SERVICE) + u8(0), wait(1000))
    yield "three_services", playing(*(added(kind) for kind in range(3)), wait(5000))
    yield "reserved_and_taken", playing(settled, added(2), wait(100))
    yield "long_name", playing(added(instance=b"x" * 80), added(instance=b"x" * 90), wait(5000))
    browse = message(question(b"_ipp._tcp.local", PTR))
    for label, how in (("multicast", 0), ("legacy", 8), ("to_one", 16), ("ipv6", 1), ("far", 20)):
        yield "browse_" + label, playing(settled, hear(browse, how), wait(200))
    for kind in (A, AAAA, SRV, TXT, PTR, NSEC, ANY):
        asked = (b"host.local", b"Printer._ipp._tcp.local", b"1.1.168.192.in-addr.arpa")
        questions = [question(each, kind, 0x8001) for each in asked]
        yield f"ask_{kind}", playing(settled, hear(message(*questions)), wait(200))
    pointer = record(b"_ipp._tcp.local", PTR, 4500, name(b"Printer._ipp._tcp.local"))
    known = message(question(b"_ipp._tcp.local", PTR), pointer, answers=1)
    yield "known_answer", playing(settled, hear(known), wait(200))
    yield "known_answers_to_come", playing(
        settled,
        hear(message(question(b"_ipp._tcp.local", PTR), flags=0x0200)),
        wait(300),
        hear(message(pointer, answers=1)),
        wait(600),
    )
    goodbye = record(b"_ipp._tcp.local", PTR, 0, name(b"Printer._ipp._tcp.local"))
    yield "goodbye_of_another", playing(
        settled, hear(message(goodbye, flags=0x8400, answers=1)), wait(1500)
    )
    conflict = message(
        record(b"host.local", A, 120, b"\xc0\xa8\1\x09"),
        record(b"Printer._ipp._tcp.local", TXT, 4500, text(b"x")),
        flags=0x8400,
        answers=2,
    )
    yield "conflict", playing(settled, hear(conflict), wait(300), hear(conflict), wait(9000))
    yield "conflict_while_probing", playing(added(), wait(300), hear(conflict), wait(9000))
    rival = struct.pack(">HHHHHH", 0, 0, 1, 0, 1, 0) + (
        question(b"host.local", ANY, 0x8001) + record(b"host.local", A, 120, b"\xc0\xa8\1\x09")
    )
    yield "rival", playing(added(), wait(300), hear(rival), wait(5000))
    yield "probe_of_another", playing(settled, hear(rival), wait(300), hear(rival), wait(300))
    yield "echo", playing(settled, *(u8(ECHO) + u8(0) + u8(0) + u8(how) for how in (0, 2, 3)))
    cable = u8(LINK) + u8(1)
    yield "link_down_and_up", playing(settled, cable, wait(9), cable, wait(3000))
    yield "other_mac", playing(settled, u8(LINK) + u8(2) + u8(7), wait(3000))
    yield "other_addresses", playing(
        settled, *(u8(LINK) + u8(8) + u8(count) + u8(0) + u8(5) + wait(500) for count in (4, 1, 16))
    )
    yield "small_packets", playing(settled, u8(LINK) + u8(4) + u16(100), hear(browse), wait(2000))
    built = u8(BUILT) + b"\0" + b"\2" + b"\2\x02\0" + b"\0\0\0" + b"\0" + b"\0"
    yield "built", playing(settled, built, wait(500))


# The kernel's messages, in the order of the machine's bytes.


def standard_netlink_seeds():
    def attribute(kind, value):
        return struct.pack("=HH", 4 + len(value), kind) + value + b"\0" * (-len(value) % 4)

    def told(kind, body, flags=0, sequence=1):
        return struct.pack("=IHHII", 16 + len(body), kind, flags, sequence, 0) + body

    def raw(*messages):
        return u8(0) + block(b"".join(messages))

    def bridge(index=7, flags=0x41, called=b"br0\0", *more):
        header = struct.pack("=BBHiII", 0, 0, 1, index, flags, 0)
        parts = attribute(3, called), attribute(4, struct.pack("=I", 1500))
        mac = attribute(1, bytes.fromhex("001122aabbcc"))
        return told(16, header + b"".join(parts) + mac + b"".join(more))

    def address(family, value, kind=20, index=7, flags=0x80):
        header = struct.pack("=BBBBi", family, 24, flags, 0, index)
        return told(kind, header + attribute(1, value) + attribute(2, value))

    own = bytes((192, 168, 1, 1))
    local = bytes.fromhex("fe80") + bytes(13) + b"\1"
    yield "bridge", u8(1) + raw(bridge(), address(2, own), address(10, local))
    yield "address_goes", u8(1) + raw(bridge(), address(2, own)) + raw(address(2, own, 21))
    yield "tentative", u8(1) + raw(bridge(), address(10, local, flags=0x40), address(10, local))
    yield "bridge_goes", u8(1) + raw(bridge(), address(2, own)) + raw(
        told(17, struct.pack("=BBHiII", 0, 0, 1, 7, 0, 0))
    )
    yield "renamed", u8(1) + raw(bridge()) + raw(bridge(called=b"br1\0")) + raw(bridge(8))
    many = (address(2, bytes((10, 0, 0, last))) for last in range(20))
    yield "too_many", u8(1) + raw(bridge(), *many) + raw(address(2, bytes((10, 0, 0, 3)), 21))
    yield "carrier", u8(1) + raw(bridge(7, 0x41, b"br0\0", attribute(35, struct.pack("=I", 3))))
    yield "end_of_reply", u8(1) + raw(told(3, b"\0" * 4), told(2, b"\0" * 4, 0x10, 2))
    link = b"\0\1\0\3\3\0\4\4\0\0\0\0"
    yield "built", u8(1) + u8(1) + u8(1) + link + b"\2\0\x18\0\1\1\2\4\xc0\xa8\1\1\1\0"


SEEDS = {
    "answer": answer_seeds,
    "probe": probe_seeds,
    "status": status_seeds,
    "device_id": device_id_seeds,
    "encode": encode_seeds,
    "registry": registry_seeds,
    "standard_wire": standard_wire_seeds,
    "standard_core": standard_core_seeds,
    "standard_netlink": standard_netlink_seeds,
}


def main(directory):
    shutil.rmtree(directory, ignore_errors=True)
    for target, seeds in SEEDS.items():
        (directory / target).mkdir(parents=True)
        for seed, content in seeds():
            (directory / target / seed).write_bytes(content)


if __name__ == "__main__":
    main(pathlib.Path(sys.argv[1]))
