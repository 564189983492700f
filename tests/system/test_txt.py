"""The TXT strings of a printer's services, and the priorities among them."""

import pytest

pytestmark = pytest.mark.release

PDL = "_pdl-datastream._tcp.local"
IPP = "_ipp._tcp.local"
NOTE = "note=T5140_00-11-22-AA-BB-CC"


@pytest.fixture
def publish(router, announced_txt):
    """Starts the daemon with one printer plugged in and returns the TXT strings it announces,
    those of the raw-port service and those of IPP."""

    def run(port, manufacturer, model, commands):
        router.plug_in(port, manufacturer, model, commands)
        router.start()
        return tuple(announced_txt(service_type) for service_type in (PDL, IPP))

    return run


def test_keys_of_both_services_in_their_order(publish):
    pdl, ipp = publish(4, "Acme", "Jet 5", "PCL,PostScript")
    assert pdl == (
        "txtvers=1",
        "qtotal=1",
        "pdl=application/PCL,application/PostScript",
        "usb_CLS=PRINTER",
        "ty=Jet 5",
        "product=(Acme Jet 5)",
        "usb_MFG=Acme",
        "usb_MDL=Jet 5",
        NOTE,
        "usb_CMD=PCL,PostScript",
        "priority=20",
    )
    assert ipp == (
        "txtvers=1",
        "qtotal=1",
        "pdl=application/PCL,application/PostScript",
        "usb_CLS=PRINTER",
        "rp=USB5_LQ",
        "ty=Jet 5",
        "product=(Acme Jet 5)",
        "usb_MFG=Acme",
        "usb_MDL=Jet 5",
        NOTE,
        "usb_CMD=PCL,PostScript",
        "priority=10",
    )


def test_hp_printer_prefers_the_raw_port(publish):
    pdl, ipp = publish(0, "An HP company", "LaserJet 1018", "PCL")
    assert (pdl[-1], ipp[-1]) == ("priority=10", "priority=20")


def test_command_set_gives_the_pdl_list_and_stands_whole_in_usb_cmd(publish):
    for strings in publish(0, "Acme", "Jet", "PJL,,PCL 6,"):
        assert strings[2] == "pdl=application/PJL,application/PCL 6"
        assert strings[-2] == "usb_CMD=PJL,,PCL 6,"


def test_long_pdl_list_is_cut_into_strings_of_128_characters_that_drop_one_between(publish):
    _, ipp = publish(0, "Acme", "Jet", "A," * 19 + "A")
    assert ipp[2:6] == (
        "pdl=" + "application/A," * 8 + "application/",
        "," + "application/A," * 9 + "a",
        "plication/A,application/A",
        "usb_CLS=PRINTER",
    )


@pytest.mark.parametrize(
    "commands, complaint",
    [
        ("C" * 119, []),
        ("C" * 600, ["buf is too small!!!"]),
    ],
    ids=["one character too long", "cut to 511"],
)
def test_text_that_does_not_fit_is_not_published(lab, router, commands, complaint):
    router.plug_in(0, "Acme", "Jet", commands)
    daemon = router.start()
    daemon.wait_for_line("[Bonjour] GetTXTData error", count=2)
    failed = [*complaint, "[Bonjour] GetTXTData error"]
    texts = daemon.texts()
    begin = texts.index("[Bonjour] device insert lp0")
    assert [text for text in texts[begin:] if not text.startswith("[QX]")] == [
        "[Bonjour] device insert lp0",
        *failed,
        *failed,
    ]
    assert [packet for packet in lab.sent() if not packet.is_query] == []


def test_printer_without_a_text_is_not_tried_again_and_is_withdrawn_all_the_same(lab, router):
    router.plug_in(0, "Acme", "Jet", "C" * 119)
    daemon = router.start()
    daemon.wait_for_line("[Bonjour] GetTXTData error", count=2)
    router.plug_in(0, "Acme", "Jet", "PCL")
    router.status_file.wait_until_read()
    router.pull_out(0)
    daemon.wait_for_line("**********UnRegisterOneService error*************", count=2)
    lines = [text for text in daemon.texts() if not text.startswith("[QX]")]
    assert lines[lines.index("[Bonjour] device insert lp0") :] == [
        "[Bonjour] device insert lp0",
        "[Bonjour] GetTXTData error",
        "[Bonjour] GetTXTData error",
        "[Bonjour] device remove lp0",
        "[Bonjour] this service: Acme Jet (aa:bb:cc) 0 _pdl-datastream._tcp .local"
        " is not registered",
        "[Bonjour] SERVICE_REMOVE error",
        "**********UnRegisterOneService error*************",
        "[Bonjour] this service: Acme Jet (aa:bb:cc) 0 _ipp._tcp .local is not registered",
        "[Bonjour] SERVICE_REMOVE error",
        "**********UnRegisterOneService error*************",
    ]
    goodbyes = lab.wait_for_packet(lambda packet: not packet.is_query, count=6)
    assert {packet.message.answers[0].name for packet in goodbyes} == {PDL, IPP}
    assert {record.ttl for packet in goodbyes for record in packet.message.answers} == {0}


def test_text_is_made_anew_when_the_printer_comes_back(lab, router):
    router.plug_in(0, "Acme", "Jet", "C" * 119)
    daemon = router.start()
    daemon.wait_for_line("[Bonjour] GetTXTData error", count=2)
    router.pull_out(0)
    daemon.wait_for_line("[Bonjour] device remove lp0")
    since = lab.capture.mark()
    router.plug_in(0, "Acme", "Jet", "PCL")
    lab.wait_for_packet(
        lambda packet: not packet.is_query
        and len(packet.message.answers) == 5
        and packet.message.answers[3].data[2] == "pdl=application/PCL",
        since,
    )
