"""No byte that was not written on purpose decides anything or leaves, in a packet or in a line; and
the tools would notice one: each is shown some."""

import contextlib
import signal
import subprocess

import main_path
import pytest
from lab import packets
from lab.dual import FAMILIES, HOST, IPP, DualLab, query
from lab.lab import TRANSMISSIONS
from lab.waiting import TimedOut

DEVICE_ID = "MFG:HP;MODEL:Model 56;CMD:PCL;"
INSTANCE = "HP  (aa:bb:cc) 1._pdl-datastream._tcp.local"
# What is changed in which source: one of the bytes that leave is one that nobody wrote.
PLANTS = {
    "packet": ("records/compose.cpp", "memset(packet.bytes, 0,", "memset(packet.bytes, 0, 0 *"),
    "line": ("base/log.cpp", "line[length++] = '\\n';", "line[++length] = '\\n'; ++length;"),
}


def test_main_path_uses_no_byte_that_was_never_written(lab, router, tool):
    assert main_path.walk(lab, tool.wrapper) == (main_path.PACKETS, main_path.LINES)
    assert not tool.findings(router.daemon)


def test_conflict_and_device_id_use_no_byte_that_was_never_written(lab, router, tool):
    daemon = router.start(ready=False, wrapper=tool.wrapper)
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
    assert not tool.findings(daemon)


def test_standard_responder_uses_no_byte_that_was_never_written(tool):
    with DualLab() as lab:
        router = lab.router
        lab.start(wrapper=tool.wrapper)
        router.plug_in(0)
        lab.wait_for_announcements()
        for family in FAMILIES:
            lab.ask(query(HOST, "AAAA"), family)
            lab.ask(query(IPP, "ANY"), family, port=0)
        router.delete_bridge()
        since = lab.capture.mark()
        lab.add_bridge_again()
        lab.wait_for_announcements(since)
        router.pull_out(0)
        lab.wait_for_record(IPP, "SRV", ttl=0)
        router.stop()
        assert not tool.findings(router.daemon)


@pytest.mark.parametrize("source, before, after", PLANTS.values(), ids=PLANTS)
def test_byte_that_was_never_written_is_noticed_when_it_leaves(
    lab, router, tool, source, before, after, tmp_path
):
    # One of these packets is a byte too long.
    lab.allow_malformed(lambda packet: True)
    subprocess.run(["git", "checkout-index", "--all", f"--prefix={tmp_path}/"], check=True)
    text = (tmp_path / source).read_text()
    assert text.count(before) == 1, f"{source} does not hold {before!r} once"
    (tmp_path / source).write_text(text.replace(before, after))
    building = ["--build", "--preset", tool.preset, "--target", "bonjour"]
    for arguments in (["--preset", tool.preset], building):
        subprocess.run(["cmake", *arguments], cwd=tmp_path, check=True, capture_output=True)
    tool.use(tmp_path)
    daemon = router.start(ready=False, wrapper=tool.wrapper)
    # Where the finding ends the daemon, the banner never comes.
    with contextlib.suppress(TimedOut):
        router.wait_for_banner()
        daemon.signal(signal.SIGTERM)
    daemon.wait_for_exit()
    assert "uninit" in tool.findings(daemon).lower()
