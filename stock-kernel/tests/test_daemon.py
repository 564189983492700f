"""The daemon that was built for a stock kernel, with the file that bonjour-printers writes."""

import pytest
from responders import PATHS, with_both
from small_system import copy_program
from stock_system import STATUS_FILE

from lab.daemon import stock_build

pytestmark = with_both

DAEMON = "/usr/sbin/bonjour"
IPP = "_ipp._tcp.local"
PDL = "_pdl-datastream._tcp.local"
HP = b"MFG:HP;MDL:Model 12;CMD:PJL,PCL;"
ACME = b"MFG:Acme;MDL:Jet;CMD:PCL;"
# As time passes for the daemon.
SLEEP = """#!/bin/sh
/real/sleep "$1"
read -r uptime _ < /proc/uptime
echo "$((${uptime%.*} + $1)).00 9.99" > /proc/uptime
"""


@pytest.fixture
def lab(lab, system, responder):
    """The lab, with the daemon in the small system, whose kernel writes no status file."""
    copy_program(stock_build(responder) / "bonjour", system.root, DAEMON.lstrip("/"))
    system.replace_program("sleep", SLEEP)
    lab.router.program = DAEMON
    lab.router.status_file.remove()
    return lab


def test_main_path_with_printers_that_sysfs_shows(lab, system, monkeypatch, responder):
    def plug_in(port):
        system.plug_in(port, HP)
        system.settle()

    def pull_out(port):
        system.pull_out(port)
        system.settle()

    system.update()
    monkeypatch.setattr(lab.router, "plug_in", plug_in)
    monkeypatch.setattr(lab.router, "pull_out", pull_out)
    PATHS[responder].check(lab, system.command())


def services(models):
    """The names of the services of these models, at port 0, 1 and so on."""
    return {
        f"{model} (aa:bb:cc) {port}.{type}"
        for port, model in enumerate(models)
        for type in (IPP, PDL)
    }


def test_every_record_that_is_written_is_published_under_a_name_of_one_label(lab, system):
    """That packets are well-formed is checked of every test's."""
    longest = b"MFG:" + b"A" * 1000 + b";MDL:" + b"B" * 1000
    models = {
        b"MFG:A;MDL:Jet 2.0;CMD:C;": "A Jet 2_0",
        b"MFG:A;MDL:usblp2;CMD:usblp3;": "A usb_lp2",
        b"MFG:A;MDL:B;CMD:" + b"C" * 118: "A B",
        longest: "A" * 15 + " " + "B" * 34,
        longest + b";CMD:" + b"PCL," * 99: "A" * 15 + " " + "B" * 34,
        b"MFG:$HOME;MDL:%s%n \\0 `x` \"';CMD:\\": "$HOME %s%n \\0 `x` \"'",
    }
    for port, device_id in enumerate(models):
        system.plug_in(port, device_id)
    system.update()
    daemon = lab.router.start("GLXE4800b5", wrapper=system.command())
    expected = services(models.values())
    daemon.wait_until(lambda: lab.services() == expected, "all are published")
    assert daemon.count("[Bonjour] GetTXTData error") == 0


def test_printers_that_swap_ports_between_two_looks_are_published_under_their_own_names(
    lab, system
):
    system.plug_in(0, HP)
    system.plug_in(1, ACME)
    system.update()
    daemon = lab.router.start(wrapper=system.command())
    expected = services(["HP Model 12", "Acme Jet"])
    daemon.wait_until(lambda: lab.services() == expected, "both are published")
    since = lab.capture.mark()
    for port, device_id in ((0, ACME), (1, HP)):
        system.pull_out(port)
        system.plug_in(port, device_id)
    system.update()
    expected = services(["Acme Jet", "HP Model 12"])
    daemon.wait_until(lambda: lab.services(since) >= expected, "both are published again")
    assert daemon.count("[Bonjour] device remove lp0") == 1
    assert daemon.count("[Bonjour] device remove lp1") == 1


def test_file_that_is_not_there_is_named_in_the_log(lab, system):
    daemon = lab.router.start(wrapper=system.command())
    daemon.wait_for_line(f'[Bonjour] Can not open "/{STATUS_FILE}"')
