"""What becomes of a printer's IEEE 1284 device id: a record of the status file, or a log line."""

import pytest


def record(manufacturer, model, commands, port=0):
    return f"usblp{port}\n{manufacturer}\n{model}\n{commands}\n\n"


def written(system, device_id, port=0):
    system.plug_in(port, device_id)
    system.settle()
    return system.status


@pytest.mark.parametrize(
    "device_id, lines",
    [
        (
            b"MFG:Hewlett-Packard;MDL:HP LaserJet 1018;CMD:ACL;CLS:PRINTER;DES:HP LaserJet 1018;",
            ("Hewlett-Packard", "HP LaserJet 1018", "ACL"),
        ),
        (
            b"MFG:Brother;CMD:PJL,PCL,PCLXL;MDL:HL-2140 series;CLS:PRINTER;",
            ("Brother", "HL-2140 series", "PJL,PCL,PCLXL"),
        ),
        (
            b"MFG:EPSON;CMD:ESCPL2,BDC,D4,D4PX,ESCPR1;MDL:Stylus SX110;CLS:PRINTER;"
            b"DES:EPSON Stylus SX110;CID:EpsonStd2;",
            ("EPSON", "Stylus SX110", "ESCPL2,BDC,D4,D4PX,ESCPR1"),
        ),
        (
            b"MANUFACTURER:Lexmark;COMMAND SET:PJL,PCLXL;MODEL:Lexmark E232;CLASS:PRINTER;",
            ("Lexmark", "Lexmark E232", "PJL,PCLXL"),
        ),
        (
            b"ID:FS-1020D;MFG:Kyocera;CMD:PCLXL,PostScript Emulation,PCL5E,PJL;MDL:FS-1020D;",
            ("Kyocera", "FS-1020D", "PCLXL,PostScript Emulation,PCL5E,PJL"),
        ),
        (b"MFG:A;MDL:B;COMMAND-SET:C;", ("A", "B", "C")),
        (b"mfg:A;Model:B;Command Set:C;", ("A", "B", "C")),
        (b"MFG:A;MDL:B;CLS:PRINTER;", ("A", "B", "")),
        (b"MFG:A;MDL:B;CMD:;", ("A", "B", "")),
        (b"MFG:A;MDL:B;CMD:C", ("A", "B", "C")),
        (b" MFG : A ; MDL :  B ;\n CMD : C , D ;", ("A", "B", "C,D")),
        (b"MFG:A;MDL:B;CMD:,C,,D, ,;", ("A", "B", "C,D")),
        (b"MFG:A;MDL:B:C;CMD:D:E;", ("A", "B:C", "D:E")),
        (b"MFG:A;MFG:X;MDL:B;MODEL:Y;CMD:C;CMD:Z;", ("A", "B", "C")),
        (b"MFG:;MANUFACTURER:A;MDL: ;MODEL:B;", ("A", "B", "")),
        (b";;:;x;;MFG:A;XMDL:N;MDLX:N;MDL:B;:C;", ("A", "B", "")),
    ],
    ids=[
        *("short keys", "commands first", "more keys", "long keys", "blanks in a command"),
        *("hyphen in a key", "small letters", "no command set", "empty command set"),
        *("no end", "blanks around", "empty commands", "colons in values", "keys twice"),
        *("empty values first", "pairs that are none"),
    ],
)
def test_id_gives_a_record(system, device_id, lines):
    assert written(system, device_id) == record(*lines)
    assert system.log == []


@pytest.mark.parametrize(
    "device_id, lines",
    [
        (b"MFG:A\nB;MDL:C\r\nD\x7fE;CMD:F\tG,\x01H;", ("A B", "C  D E", "F G,H")),
        ("MFG:Ä1;MDL:2Ö3\u2028;CMD:\xa04".encode(), ("1", "23", "4")),
        (b"MFG:A;MDL:\xff\xfeB\x80;", ("A", "B", "")),
        (b"MFG:A;MDL:B usblp1;CMD:usblp2,usb\xfflp3;", ("A", "B usb_lp1", "usb_lp2,usb_lp3")),
        (b"MFG:A.B;MDL:Jet 2.0;CMD:C.D;", ("A_B", "Jet 2_0", "C.D")),
        (
            b"MFG:$(x) `x`;MDL:\\n \\\\ & %s 'x' \"x\";CMD:*,?,[a],-n,\\t;",
            ("$(x) `x`", "\\n \\\\ & %s 'x' \"x\"", "*,?,[a],-n,\\t"),
        ),
    ],
    ids=[
        *("control characters", "other alphabets", "no text of any encoding"),
        *("first line of a record", "dots", "shell and awk"),
    ],
)
def test_nothing_in_an_id_breaks_a_record_or_a_name(system, device_id, lines):
    assert written(system, device_id) == record(*lines)
    assert system.log == []


@pytest.mark.parametrize(
    "device_id, line",
    [
        (b"", "lp0: no device id, not published"),
        (b"\xff\xfe\x80", "lp0: no device id, not published"),
        (b"\1\n", "lp0: no device id, not published"),
        (b"MFG:A;CMD:B;", "lp0: no manufacturer or model in MFG:A;CMD:B;, not published"),
        (b"MDL:A;CMD:B;", "lp0: no manufacturer or model in MDL:A;CMD:B;, not published"),
        (b"MFG: ;MDL:\xff;", "lp0: no manufacturer or model in MFG: ;MDL:;, not published"),
        (b"MFG A MDL B", "lp0: no manufacturer or model in MFG A MDL B, not published"),
        (b"x" * 1000, f"lp0: no manufacturer or model in {'x' * 200}, not published"),
    ],
    ids=[
        *("empty", "not a character of it", "control characters", "no model", "no manufacturer"),
        *("empty values", "no pairs", "long"),
    ],
)
def test_broken_id_gives_no_record_and_a_line(system, device_id, line):
    assert written(system, device_id) == ""
    assert system.log == [f"bonjour-printers: {line}"]


def test_every_beginning_of_an_id_gives_a_whole_record_or_none(busybox):
    whole = b"MFG:Acme;MDL:Jet 1;CMD:PCL,PJL;"
    for length in range(len(whole) + 1):
        status = written(busybox, whole[:length])
        if length <= len(b"MFG:Acme;MDL:"):
            assert status == "", whole[:length]
        else:
            model = whole[13:18][: length - 13].decode()
            commands = whole[23:30][: max(0, length - 23)].decode().rstrip(",")
            assert status == record("Acme", model.strip(), commands), whole[:length]
        busybox.pull_out(0)


# The label of a service name has up to 63 characters, the TXT record's manufacturer 15 and all of
# its text 512; the longest host name has 32.


def test_manufacturer_and_model_are_cut_to_what_a_name_holds(system):
    status = written(system, b"MFG:" + b"A" * 1000 + b";MDL:" + b"B" * 1000 + b";")
    assert status == record("A" * 15, "B" * 34, "")


def test_short_manufacturer_leaves_more_for_the_model(system):
    status = written(system, b"MFG:HP;MDL:" + b"B" * 48 + b";")
    assert status == record("HP", "B" * 47, "")


def test_longest_manufacturer_and_model_stay_whole(system):
    status = written(system, b"MFG:Hewlett-Packard;MDL:HP LaserJet Professional M1217nfwX;")
    assert status == record("Hewlett-Packard", "HP LaserJet Professional M1217nfwX", "")


def test_cut_leaves_no_blank_at_the_end(system):
    status = written(system, b"MFG:Fourteen chars and;MDL:" + b"B" * 34 + b" C;")
    assert status == record("Fourteen chars", "B" * 34, "")


@pytest.mark.parametrize(
    "commands, left",
    [
        ("C" * 118, "C" * 118),
        ("C" * 119, ""),
        ("C" * 1000, ""),
        (",".join(["C" * 58, "D" * 59]), ",".join(["C" * 58, "D" * 59])),
        (",".join(["C" * 58, "D" * 60]), "C" * 58),
        (",".join(["C" * 119, "D"]), ""),
    ],
    ids=["at the limit", "above", "very long", "two at the limit", "two above", "first above"],
)
def test_command_set_is_cut_at_a_comma_to_the_limit_of_its_key(system, commands, left):
    status = written(system, f"MFG:A;MDL:B;CMD:{commands};".encode())
    assert status == record("A", "B", left)


def test_command_set_is_cut_at_a_comma_to_what_the_text_has_left(system):
    """Of 512 characters 112 are fixed, 32 the host name, 2 * 15 + 3 * 34 manufacturer and model. Of
    the 236 left, a command of three takes 12 + 2 * 3, and 2 for the comma before it: 11 have 218,
    12 would have 238."""
    commands = ",".join(["PCL"] * 20)
    status = written(system, f"MFG:{'A' * 15};MDL:{'B' * 34};CMD:{commands};".encode())
    assert status == record("A" * 15, "B" * 34, ",".join(["PCL"] * 11))
