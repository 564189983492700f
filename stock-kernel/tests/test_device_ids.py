"""What becomes of a printer's IEEE 1284 device id: a record of the status file, or a log line."""

PORTS = 10


def record(manufacturer, model, commands, port=0):
    return f"usblp{port}\n{manufacturer}\n{model}\n{commands}\n\n"


# The label of a service name has up to 63 characters, the TXT record's manufacturer 15 and all of
# its text 512; the longest host name has 32. Of the 512 characters 112 are fixed, 32 the host name,
# 2 * 15 + 3 * 34 the longest manufacturer and model. Of the 236 left, each command takes 12, and
# all of them with their commas twice their length: two of them have 106.
LONGEST_NAME = b"MFG:" + b"A" * 15 + b";MDL:" + b"B" * 34

RECORDS = [
    # Printers that there are.
    (
        b"MFG:Brother;CMD:PJL,PCL,PCLXL;MDL:HL-2140 series;CLS:PRINTER;DES:HL-2140;",
        ("Brother", "HL-2140 series", "PJL,PCL,PCLXL"),
    ),
    (
        b"MANUFACTURER:Lexmark;COMMAND SET:PJL,PCLXL;MODEL:Lexmark E232;CLASS:PRINTER;",
        ("Lexmark", "Lexmark E232", "PJL,PCLXL"),
    ),
    # Keys, and what is no pair.
    (b"MFG:A;MDL:B;COMMAND-SET:C;", ("A", "B", "C")),
    (b"mfg:A;Model:B;Command Set:C;", ("A", "B", "C")),
    (b"MFG:A;MFG:X;MDL:B;MODEL:Y;CMD:C;CMD:Z;", ("A", "B", "C")),
    (b"MFG:;MANUFACTURER:A;MDL: ;MODEL:B;", ("A", "B", "")),
    (b";;:;x;;MFG:A;XMDL:N;MDLX:N;MDL:B;:C;", ("A", "B", "")),
    # Values.
    (b"MFG:A;MDL:B;CMD:C", ("A", "B", "C")),
    (b" MFG : A ; MDL :  B ;\n CMD : C , D ;", ("A", "B", "C,D")),
    (b"MFG:A;MDL:B;CMD:,C,,D, ,;", ("A", "B", "C,D")),
    (b"MFG:A;MDL:B:C;CMD:D:E;", ("A", "B:C", "D:E")),
    # What would break a record, a name or the script.
    (b"MFG:A\nB;MDL:C\r\nD\x7fE;CMD:F\tG,\x01H;", ("A B", "C  D E", "F G,H")),
    ("MFG:Ä1;MDL:2Ö3\u2028;CMD:\xa04".encode(), ("1", "23", "4")),
    (b"MFG:A;MDL:\xff\xfeB\x80;", ("A", "B", "")),
    (b"MFG:A;MDL:B usblp1;CMD:usblp2,usb\xfflp3;", ("A", "B usb_lp1", "usb_lp2,usb_lp3")),
    (b"MFG:A.B;MDL:Jet 2.0;CMD:C.D;", ("A_B", "Jet 2_0", "C.D")),
    (
        b"MFG:$(x) `x`;MDL:\\n \\\\ & %s 'x' \"x\";CMD:*,?,[a],-n,\\t;",
        ("$(x) `x`", "\\n \\\\ & %s 'x' \"x\"", "*,?,[a],-n,\\t"),
    ),
    # Manufacturer and model are cut to what a name holds.
    (b"MFG:" + b"A" * 1000 + b";MDL:" + b"B" * 1000, ("A" * 15, "B" * 34, "")),
    (LONGEST_NAME, ("A" * 15, "B" * 34, "")),
    (b"MFG:HP;MDL:" + b"B" * 48, ("HP", "B" * 47, "")),
    (b"MFG:Fourteen chars and;MDL:" + b"B" * 34 + b" C", ("Fourteen chars", "B" * 34, "")),
    # Commands are cut at a comma to the limit of their key, and to what the text has left.
    (b"MFG:A;MDL:B;CMD:" + b"C" * 118, ("A", "B", "C" * 118)),
    (b"MFG:A;MDL:B;CMD:" + b"C" * 119 + b",D", ("A", "B", "")),
    (
        b"MFG:A;MDL:B;CMD:" + b"C" * 58 + b"," + b"D" * 59,
        ("A", "B", "C" * 58 + "," + "D" * 59),
    ),
    (b"MFG:A;MDL:B;CMD:" + b"C" * 58 + b"," + b"D" * 60, ("A", "B", "C" * 58)),
    (
        LONGEST_NAME + b";CMD:" + b"C" * 52 + b"," + b"D" * 53,
        ("A" * 15, "B" * 34, "C" * 52 + "," + "D" * 53),
    ),
    (
        LONGEST_NAME + b";CMD:" + b"C" * 52 + b"," + b"D" * 54,
        ("A" * 15, "B" * 34, "C" * 52),
    ),
]


def test_id_gives_a_record(system):
    for first in range(0, len(RECORDS), PORTS):
        shown = RECORDS[first : first + PORTS]
        for port, (device_id, _) in enumerate(shown):
            system.plug_in(port, device_id)
        system.settle()
        assert system.status == "".join(
            record(*lines, port) for port, (_, lines) in enumerate(shown)
        )
        for port in range(len(shown)):
            system.pull_out(port)
    assert system.log == []


BROKEN = [
    (b"", "no device id"),
    (b"\xff\xfe\x80", "no device id"),
    (b"\1\n", "no device id"),
    (b"MFG:A;CMD:B;", "no manufacturer or model in MFG:A;CMD:B;"),
    (b"MDL:A;CMD:B;", "no manufacturer or model in MDL:A;CMD:B;"),
    (b"MFG: ;MDL:\xff;", "no manufacturer or model in MFG: ;MDL:;"),
    (b"MFG A MDL B", "no manufacturer or model in MFG A MDL B"),
    (b"x" * 1000, f"no manufacturer or model in {'x' * 200}"),
]


def test_broken_id_gives_a_line_and_no_record_and_keeps_no_other_printer_out(system):
    for port, (device_id, _) in enumerate(BROKEN):
        system.plug_in(port, device_id)
    system.plug_in(9, b"MFG:A;MDL:B;")
    system.settle()
    assert system.status == record("A", "B", "", 9)
    assert system.log == [
        f"bonjour-printers: lp{port}: {reason}, not published"
        for port, (_, reason) in enumerate(BROKEN)
    ]
