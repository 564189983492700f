"""The demonstration behind ./demo: the daemon's main job step by step, timed by its packets."""

import argparse
import os
import pathlib
import re
import shlex
import signal
import sys
import textwrap
import time

from lab import Lab
from lab.browser import IPP, RAW, Browser
from lab.lab import TRANSMISSIONS

MODEL = "T5140"
ROOT = pathlib.Path(__file__).resolve().parent.parent
SERVICES = {RAW: "raw printing", IPP: "IPP"}

_colours = sys.stdout.isatty() and "NO_COLOR" not in os.environ


def _in_style(code, text):
    return f"\x1b[{code}m{text}\x1b[0m" if _colours else text


def print_title(text):
    print(f"\n{_in_style('1', text)}", flush=True)


def print_step(seconds, text):
    print(f"  {_in_style('36', f'{seconds * 1000:7.1f} ms')}  {text}", flush=True)


def _print_table(head, rows):
    widths = [max(len(row[column]) for row in [head, *rows]) for column in range(len(head))]

    def line(row):
        return "    " + "   ".join(map(str.ljust, row, widths)).rstrip()

    print(f"\n{_in_style('1', line(head))}")
    print(line(["-" * width for width in widths]))
    print("\n".join(map(line, rows)), end="\n\n", flush=True)


def is_response(packet):
    return not packet.is_query


def is_goodbye(packet):
    return is_response(packet) and all(record.ttl == 0 for record in packet.message.answers)


def has_record_of(owner):
    return lambda packet: any(record.name == owner for record in packet.message.answers)


class Demo:
    """Milliseconds of a step count from what triggers it: the daemon's start, a change of the
    printer status file, a question on the link, the signal to stop."""

    # How often a packet about a service is sent, and in how many a printer's goodbye goes.
    transmissions = TRANSMISSIONS
    goodbyes = len(SERVICES) * TRANSMISSIONS

    def __init__(self, lab):
        self.lab = lab
        self.router = lab.router
        self.host = None
        self.browser = None

    def start_router(self):
        print_title("The router starts and claims a name on the link")
        start, mark = time.time(), self.lab.capture.mark()
        daemon = self.router.start(MODEL, fast=False, ready=False)
        probes = self._wait(lambda packet: packet.is_query, mark, TRANSMISSIONS)
        wanted = probes[0].message.questions[0].name
        for probe, text in zip(probes, (f"it asks who has the name {wanted}", "again", "again")):
            print_step(probe.time - start, text)
        settled = daemon.wait_for_line(re.compile(r"\[Bonjour\] default device name = .*"))
        print_step(
            settled.time - start, f"nobody objected: {daemon.device_name}.local is its name"
        )
        self.router.wait_for_banner()

    def plug_in(self, port, manufacturer, model, commands):
        print_title(f"A printer is plugged in: {manufacturer} {model}")
        start, mark = time.time(), self.lab.capture.mark()
        self.router.plug_in(port, manufacturer, model, commands)
        for service_type, service in SERVICES.items():
            announced = self._wait(
                lambda packet: is_response(packet) and has_record_of(service_type)(packet),
                mark,
                self.transmissions,
            )
            times = ", ".join(f"{(packet.time - start) * 1000:.0f}" for packet in announced)
            print_step(
                announced[0].time - start, f"{service} is announced to all hosts (at {times} ms)"
            )

    def list_printers(self, count):
        print_title("A new host on the link looks for printers")
        self.host = self.lab.add_host()
        self.browser = Browser(self.host)
        for service_type, service in reversed(SERVICES.items()):
            self._ask(service_type, "PTR", f"who offers {service}?", has_record_of(service_type))
        self._wait_until_heard(
            lambda: len(self.browser.services) == count * len(SERVICES)
            and all(service.attributes for service in self.browser.services),
            "the printers' services",
        )
        self._show_services()

    def ask_for_router(self):
        name = f"{self.router.daemon.device_name}.local"
        print_title("The host asks for the router's address")
        self._ask(name, "A", f"what is the address of {name}?", has_record_of(name))
        self._wait_until_heard(lambda: self.browser.address_of(name), "the address")
        print(f"              {name} is {self.browser.address_of(name)}", flush=True)

    def show_more(self):
        """What only some routers can."""

    def pull_out(self, port):
        gone = self.router.printer(port)
        print_title(f"A printer is pulled out: {gone.manufacturer} {gone.model}")
        left = len(self.browser.services) - len(SERVICES)
        start, mark = time.time(), self.lab.capture.mark()
        self.router.pull_out(port)
        goodbyes = self._wait(is_goodbye, mark, self.goodbyes)
        print_step(goodbyes[0].time - start, "the router says goodbye for its services")
        self._wait_until_heard(lambda: len(self.browser.services) == left, "the goodbyes")
        print("              the host's list is now:")
        self._show_services()

    def stop_router(self):
        print_title("The router stops")
        start, mark = time.time(), self.lab.capture.mark()
        self.router.stop()
        ended = time.time()
        goodbyes = self._wait(is_goodbye, mark)
        print_step(goodbyes[0].time - start, "it says goodbye for every printer left")
        print_step(ended - start, "it ends, exit status 0")
        self._wait_until_heard(lambda: not self.browser.services, "the goodbyes")
        print("              the host's list is empty", flush=True)

    def _wait(self, wanted, since, count=1):
        return self.lab.wait_for_packet(wanted, since, count)

    def _ask(self, name, record_type, text, answers):
        mark = self.lab.capture.mark()
        self.browser.ask(name, record_type)
        asked = self.lab.capture.wait_for(lambda packet: packet.is_query, since=mark)[0]
        answer = self._wait(
            lambda packet: is_response(packet) and answers(packet), mark
        )[0]
        print_step(answer.time - asked.time, f"answered: {text}")

    def _wait_until_heard(self, until, what):
        if not self.browser.listen(until, bound=5.0):
            raise RuntimeError(f"the host did not hear {what}")

    def _show_services(self):
        rows = [
            [
                service.name,
                SERVICES[service.type],
                service.address,
                str(service.port),
                service.attributes["usb_MFG"],
                service.attributes["ty"],
            ]
            for service in self.browser.services
        ]
        _print_table(["Printer", "Service", "Address", "Port", "Make", "Model"], rows)


def _instructions(demo):
    router, host = demo.router, demo.host
    python = f"env PYTHONPATH={shlex.quote(str(ROOT))} /usr/bin/python3 -B"
    sandbox = f"/proc/{router.sandbox.pid}/ns"
    on_router = f"--mount={sandbox}/mnt --pid={sandbox}/pid_for_children"
    text = f"""
        The lab is running. From another terminal, as root:

        # what the router's kernel tells about its printers; a change is noticed within a second
        cat {router.status_file.path}

        # plug a printer in, and unplug it
        {python} -m lab.plug {router.status_file.path} in Epson 'Stylus C62' ESCPL2,BDC
        {python} -m lab.plug {router.status_file.path} out 'Stylus C62'

        # a shell on the router, and one on the host
        nsenter {on_router} --net={router.network.path} bash
        nsenter --net={host.network.path} bash

        # questions from the host
        nsenter --net={host.network.path} {python} -m lab.ask {IPP}
        nsenter --net={host.network.path} {python} -m lab.ask {router.daemon.device_name}.local A

        # every packet on the link
        nsenter --net={demo.lab.link.network.path} tcpdump -ni switch udp port 5353

        # stop the router's daemon
        kill {router.daemon.pid}

        The daemon's log follows. Enter or Ctrl-C ends the lab.
    """
    return textwrap.dedent(text)


def _leave_standing(demo):
    daemon = demo.router.daemon
    standing = True

    def tell_end():
        status = daemon.wait_for_exit()
        if standing:
            print(f"The daemon has ended with status {status}; the lab is still up.", flush=True)

    try:
        print(_instructions(demo))
        daemon.lines.follow(lambda line: print(f"  | {line.text}", flush=True), tell_end)
        if not sys.stdin or not sys.stdin.readline():  # nobody at the terminal: until a signal
            signal.pause()
    finally:
        standing = False


def show(demo, leave_standing=None):
    """The whole demonstration; `leave_standing` is called with it in place of its end."""
    demo.start_router()
    demo.plug_in(0, "HP", "LaserJet 1018", "ZJS,PJL")
    demo.plug_in(1, "Brother", "HL-2140", "PCL,PJL")
    demo.list_printers(2)
    demo.ask_for_router()
    demo.show_more()
    if leave_standing:
        leave_standing(demo)
    else:
        demo.pull_out(0)
        demo.stop_router()


def end_on_signal(number, _):
    sys.exit(128 + number)


def run(make_lab, make_demo, command):
    """Shows the demonstration of `make_demo`; `command` is what it was started with."""
    parser = argparse.ArgumentParser(prog="demo", description="Shows the daemon's main job.")
    parser.add_argument(
        "--keep", action="store_true", help="leave the lab running until Enter or Ctrl-C"
    )
    options = parser.parse_args()
    # The reader may go away. The lab ends with this process, whatever ends it.
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    sys.stdout.reconfigure(errors="backslashreplace")
    signal.signal(signal.SIGTERM, end_on_signal)
    signal.signal(signal.SIGHUP, end_on_signal)
    begun = time.monotonic()
    try:
        with make_lab() as lab:
            show(make_demo(lab), _leave_standing if options.keep else None)
    except KeyboardInterrupt:
        print()
        return 0 if options.keep else 130
    if not options.keep:
        seconds = time.monotonic() - begun
        print(f"\nDone in {seconds:.1f} s. {command} --keep leaves it running to explore.")
    return 0


if __name__ == "__main__":
    sys.exit(run(Lab, Demo, "./demo"))
