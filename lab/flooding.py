"""Floods of questions, and the router that they are sent to."""

import json
import subprocess

from lab import packets
from lab.printers import Printer, device_tool
from lab.usage import PeakUsage, usage_once_senders_ended

HOST_QUESTION = packets.query(("T5140_00-11-22-AA-BB-CC.local", "A"))
BROWSE_QUESTION = packets.query(("_ipp._tcp.local", "PTR"))
# Names both services of every printer.
EVERYTHING_QUESTION = packets.query(
    ("_ipp._tcp.local", "PTR"), ("_pdl-datastream._tcp.local", "PTR")
)


def start_flood(lab, question, rate, seconds):
    """Starts the program that asks `question` `rate` times a second, and prints what it counted."""
    program = device_tool().with_name("flood")
    with lab.host.network.entered():
        return subprocess.Popen(
            [program, lab.host.address, question.hex(), str(rate), str(seconds)],
            stdout=subprocess.PIPE,
            text=True,
        )


def flood(lab, question, rate, seconds):
    """Asks `question` `rate` times a second; returns what was counted, and the peak usage."""
    asking = start_flood(lab, question, rate, seconds)
    with PeakUsage(lab.router.daemon.pid) as peak:
        counted = json.loads(asking.communicate(timeout=seconds + 60)[0])
    return counted, peak


def quiet_router(lab, printers=0, **how):
    """A daemon with so many printers whose announcements are over, without a capture. `how` it is
    started is as for router.start()."""
    daemon = lab.router.start(**how)
    if printers:
        lab.router.plug_in_all([Printer(port) for port in range(printers)])
        daemon.wait_for_line(f"[Bonjour] device insert lp{printers - 1}")
    usage_once_senders_ended(daemon.pid)
    lab.capture.close()
    return daemon
