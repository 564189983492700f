"""No byte that was not written on purpose decides anything or leaves, in a packet or in a line.

A daemon that has such a byte ends with a status that is not 0: under MemorySanitizer, on the build
msan, at once, and under valgrind, as it ships, when it is stopped.
"""

import pathlib

import pytest
from lab import packets
from lab.daemon import has_sanitizer
from lab.lab import TRANSMISSIONS
from responders import PATHS, with_both

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
VALGRIND = ("valgrind", "--quiet", "--vgdb=no", "--track-origins=yes", "--error-exitcode=1")
DEVICE_ID = "MFG:HP;MODEL:Model 56;CMD:PCL;"
INSTANCE = "HP  (aa:bb:cc) 1._pdl-datastream._tcp.local"


@pytest.fixture(params=["msan", "release"], ids=["MemorySanitizer", "valgrind"])
def wrapper(request, monkeypatch):
    """What precedes the daemon's command line."""
    monkeypatch.setenv("BONJOUR", f"{ROOT}/build/{request.param}/bonjour")
    assert has_sanitizer() == (request.param == "msan")
    return () if has_sanitizer() else VALGRIND


@with_both
def test_main_path_uses_no_byte_that_was_never_written(wrapper, lab, responder):
    PATHS[responder].check(lab, wrapper)


def test_conflict_and_device_id_use_no_byte_that_was_never_written(wrapper, lab, router):
    router.start(ready=False, wrapper=wrapper)
    name = "T5140_00-11-22-AA-BB-CC"
    lab.wait_for_packet(packets.query((f"{name}.local", "A")))
    lab.host.send(packets.query((f"{name}.local", "A")))
    for count in (1, 2 * TRANSMISSIONS):
        lab.wait_for_packet(packets.query((f"{name}-1.local", "A")), count=count)
        router.end_probe()
    router.wait_for_banner()
    router.connect_device(1, DEVICE_ID)
    router.plug_in(1, model="")
    lab.wait_for_packet(lambda packet: b"ty=Model 56" in packet.payload, count=2 * TRANSMISSIONS)
    (answer,) = lab.ask(packets.query((INSTANCE, "SRV")))
    assert packets.parse(answer).answers[2].data == (9101, f"{name}-1.local")
    router.stop()
