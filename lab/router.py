"""A router: a network with the bridge br0 on the link, its printers, and the daemon on it."""

import signal
import time

from lab import packets
from lab.daemon import BANNER_START, Daemon
from lab.netns import NetworkNamespace
from lab.printers import Printer, StatusFile, UsbDevice
from lab.sandbox import Sandbox

BRIDGE = "br0"
_UPLINK = "lan0"

# The host-name probe ends at the twelfth packet of another machine that is no conflict.
_PACKETS_THAT_END_THE_PROBE = 12


class Router:
    def __init__(self, link, capture, bystander, mac, address, bridge=True):
        """`address` is "192.168.1.1/24" or None. Without `bridge` there is no br0 at first.
        `bystander` is the host whose packets end a probe before its five seconds."""
        self.mac = mac
        self.addresses = []
        self._capture = capture
        self._bystander = bystander
        self.network = NetworkNamespace()
        link.plug_in(self.network, _UPLINK)
        if bridge:
            self.add_bridge(address)
        self.sandbox = Sandbox()
        self.status_file = StatusFile(self.sandbox)
        self._printers = {}
        self._devices = {}
        self.program = None
        # Whether packets of the bystander end a probe.
        self.probe_can_be_cut_short = True
        self.daemon = None
        self.daemons = []

    # The bridge

    @property
    def address(self):
        """The bridge's IPv4 address as text, or the last one that it had."""
        return self.addresses[-1]

    def add_bridge(self, address=None):
        """Creates br0 with this router's hardware address, and with an IPv4 address if given."""
        commands = [
            f"link add {BRIDGE} address {self.mac} type bridge mcast_snooping 0",
            f"link set {_UPLINK} master {BRIDGE}",
        ]
        if address:
            commands.append(f"addr add {address} dev {BRIDGE}")
            self._note_address(address)
        self.network.ip(*commands, f"link set {BRIDGE} up")
        self.network.wait_until_running(BRIDGE)

    def _note_address(self, address):
        self.addresses.append(address.partition("/")[0])

    def delete_bridge(self):
        self.network.ip(f"link del {BRIDGE}")

    def set_address(self, address):
        """Gives br0 `address` instead of the one that it has, if any."""
        self.network.ip(f"addr flush dev {BRIDGE}", f"addr add {address} dev {BRIDGE}")
        self._note_address(address)

    def delete_address(self):
        self.network.ip(f"addr flush dev {BRIDGE}")

    # Printers

    @property
    def ports(self):
        """The ports at which printers are plugged in."""
        return sorted(self._printers)

    def printer(self, port):
        """The Printer that is plugged in at `port`."""
        return self._printers[port]

    def plug_in(self, port, manufacturer="HP", model="Model 12", commands="PJL,PCL", **lines):
        """Adds a printer's record to the status file, in one step; for `lines` see Printer."""
        self._printers[port] = Printer(port, manufacturer, model, commands, **lines)
        self._write_status_file()

    def plug_in_all(self, printers):
        """Adds several printers' records in one step."""
        self._printers.update({printer.port: printer for printer in printers})
        self._write_status_file()

    def pull_out(self, *ports):
        """Takes the records of these printers out of the status file, in one step."""
        for port in ports:
            del self._printers[port]
            if port in self._devices:
                self._devices.pop(port).remove()
        self._write_status_file()

    def _write_status_file(self):
        self.status_file.replace(
            "".join(self._printers[port].record() for port in sorted(self._printers))
        )

    def connect_device(self, port, device_id="", **behaviour):
        """Creates /dev/usblp<port>; for `behaviour` see UsbDevice."""
        self._devices[port] = UsbDevice(self.sandbox, port, device_id, **behaviour)
        return self._devices[port]

    # The daemon

    def start(self, *arguments, fast=True, ready=True, environment=None, wrapper=()):
        """Starts the daemon with these arguments and returns it.

        With `ready` this returns once the banner was printed. With `fast` too, the host-name probe
        is cut short: other machines' packets let it end before its five silent seconds are over.
        """
        before = self._capture.mark()
        self.daemon = Daemon(
            self.sandbox, self.network, arguments, environment, wrapper, self.program
        )
        self.daemons.append(self.daemon)
        if ready:
            if fast and self.probe_can_be_cut_short:
                self._capture.wait_for(
                    lambda packet: packet.source == self.address and packet.is_query,
                    since=before,
                    what="the host-name probe",
                )
                self.end_probe()
            self.wait_for_banner()
        return self.daemon

    def end_probe(self):
        """Lets a host-name probe under way end without a conflict."""
        for _ in range(_PACKETS_THAT_END_THE_PROBE):
            self._bystander.send(packets.HARMLESS)

    def wait_for_banner(self, bound=20.0):
        self.daemon.lines.wait(
            lambda line: line.text.startswith(BANNER_START), 1, 0, bound, "the start banner"
        )

    def stop(self, number=signal.SIGTERM, bound=15.0):
        """Stops the daemon, waits for its end and checks that it was a clean one. Returns the
        seconds from the signal to the end."""
        daemon = self.daemon
        is_up = daemon.is_up
        begun = time.monotonic()
        daemon.signal(number)
        if not is_up:
            # A probe that is under way goes on to its next packet, or for five silent seconds.
            self.end_probe()
        daemon.wait_for_exit(bound)
        ended = time.monotonic()
        daemon.check_clean()
        return ended - begun

    def close(self):
        for daemon in self.daemons:
            daemon.kill()
        self.status_file.close()
        self.sandbox.close()
        self.network.close()
