"""The demonstration on a whole router: a virtual machine from its boot to its power-off."""

import argparse
import os
import re
import shlex
import signal
import sys
import time

from lab.browser import IPP
from lab.demo import ROOT, Demo, end_on_signal, is_goodbye, print_step, print_title, show
from lab.lab import TRANSMISSIONS
from lab.vm.kinds import KINDS
from lab.vm.router import MachineLab
from lab.waiting import TimedOut

BOOT_BOUND = 120.0
_HELP = """\
  plug PORT ID     plugs a printer with this IEEE 1284 device id into the USB port PORT
  pull PORT        unplugs it
  log              shows the router's log
  (anything else)  is run by the router's shell
  Ctrl-D           ends it all
"""


class MachineDemo(Demo):
    """The same steps, on a router that has to boot."""

    def start_router(self):
        print_title("A router is switched on, with no printer yet")
        start, mark = time.time(), self.lab.capture.mark()
        self.router.start()
        probe = self.lab.wait_for_packet(lambda packet: packet.is_query, mark, 1, BOOT_BOUND)[0]
        wanted = probe.message.questions[0].name
        print_step(probe.time - start, f"it has booted, and asks who has the name {wanted}")
        settled = self.router.daemon.wait_for_line(
            re.compile(r"\[Bonjour\] default device name = .*"), bound=BOOT_BOUND
        )
        print_step(settled.time - start, "nobody objected: that is its name")
        self.router.daemon.wait_for_line(re.compile(r"\[QX\] .*"), bound=BOOT_BOUND)

    def plug_in(self, port, manufacturer, model, commands):
        super().plug_in(port, manufacturer, model, commands)
        run = self.router.machine.run
        print("              on the router:")
        self._show("ls -l /dev/usb/lp*", run("ls -l /dev/usb/lp*"))
        attribute = f"/sys/class/usbmisc/lp{port}/device/ieee1284_id"
        self._show(f"cat {attribute}", run(f"cat {attribute}"))
        shown = "/var/run/bonjour/printer_status"
        self._show(f"cat {shown}", run(f"cat {shown}"))

    def _show(self, command, printed):
        print(f"              # {command}")
        for line in printed.splitlines():
            print(f"              {line}", flush=True)

    def stop_router(self):
        print_title("The router's owner switches it off: poweroff")
        start, mark = time.time(), self.lab.capture.mark()
        left = len(self.browser.services)
        self.router.machine.power_off(BOOT_BOUND)
        ended = time.time()
        goodbyes = self.lab.wait_for_packet(is_goodbye, mark, left * TRANSMISSIONS)
        print_step(goodbyes[0].time - start, "it says goodbye for every printer left")
        print_step(ended - start, "it is off")
        self._wait_until_heard(lambda: not self.browser.services, "the goodbyes")
        print("              the host's list is empty", flush=True)


def _how_to_look_in(demo):
    host = demo.host
    python = f"env PYTHONPATH={shlex.quote(str(ROOT))} /usr/bin/python3"
    return f"""
The router is running. At the prompt:
{_HELP}
From another terminal, as root:

  # questions from the host
  nsenter --net={host.network.path} {python} -m lab.ask {IPP}

  # every packet on the link
  nsenter --net={demo.lab.link.network.path} tcpdump -ni switch udp port 5353
"""


def _obey(demo, words, line):
    router = demo.router
    if words[0] == "plug" and len(words) >= 3:
        router.machine.plug_in(int(words[1]), line.split(None, 2)[2].encode())
    elif words[0] == "pull" and len(words) == 2:
        router.machine.pull_out(int(words[1]))
    elif words == ["log"]:
        print("\n".join(router.daemon.texts()))
    else:
        status, printed = router.machine.try_to_run(line)
        print(printed, end="" if status == 0 else f"status {status}\n", flush=True)


def _stand(demo):
    print(_how_to_look_in(demo), flush=True)
    while demo.router.machine.running:
        try:
            line = input("router# ")
        except EOFError:
            print()
            return
        words = line.split()
        if words:
            try:
                _obey(demo, words, line)
            except (OSError, ValueError, TimedOut) as problem:
                print(f"that did not work: {problem}", flush=True)


def main():
    parser = argparse.ArgumentParser(
        prog="demo", description="Shows the daemon's main job on a whole router."
    )
    parser.add_argument(
        "--keep", action="store_true", help="stay at a prompt until Ctrl-D or Ctrl-C"
    )
    parser.add_argument("--kind", choices=list(KINDS), default="x86-64", help="of router")
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, end_on_signal)
    signal.signal(signal.SIGHUP, end_on_signal)
    begun = time.monotonic()
    try:
        with MachineLab(options.kind) as lab:
            show(MachineDemo(lab), _stand if options.keep else None)
    except KeyboardInterrupt:
        print()
        return 0 if options.keep else 130
    except BrokenPipeError:
        # The reader has gone away.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 141
    if not options.keep:
        print(f"\nDone in {time.monotonic() - begun:.1f} s. --keep leaves it running to explore.")
    return 0


if __name__ == "__main__":
    sys.exit(main())
