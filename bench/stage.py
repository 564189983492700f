"""Where the daemon and the floor program are measured: a link, a router and a host for each."""

import os
import struct
import subprocess

from lab import Lab, packets
from lab.daemon import binary

PRINTERS = 10
TRANSMISSIONS = 3


def build_directory():
    """Where bonjour and the benchmarks are built."""
    return binary().parent


def program(name):
    return build_directory() / "bench" / name


class Stage:
    """A lab whose router runs one program, which logs to a pipe."""

    def __init__(self):
        self.lab = Lab()
        self.router = self.lab.router
        self.log, self._log_end = os.pipe()
        self.process = None

    def run(self, command, wrapper=(), environment=None):
        """Starts `command` on the router; the rest as for Sandbox.spawn()."""
        self.process = self.router.sandbox.spawn(
            [*wrapper, *command],
            network=self.router.network,
            environment=environment,
            stdin=subprocess.DEVNULL,
            stdout=self._log_end,
            stderr=subprocess.DEVNULL,
        )

    def run_daemon(self, printers=PRINTERS, wrapper=(), environment=None):
        """Starts the daemon, returns when it has announced the services of that many printers."""
        self.run([binary()], wrapper, environment)
        self.lab.capture.wait_for(
            lambda packet: packet.source == self.router.address and packet.is_query
        )
        self.router.end_probe()
        mark = self.lab.capture.mark()
        for port in range(printers):
            self.plug_in(port)
        if printers:
            self.wait_for_announcements(printers, mark)

    def wait_for_announcements(self, printers, since):
        self.lab.capture.wait_for(self._is_response, 2 * printers * TRANSMISSIONS, since)

    def plug_in(self, port):
        self.router.plug_in(port, "HP", "LaserJet 1020", "PJL,PCL,POSTSCRIPT")

    def _is_response(self, packet):
        return packet.source == self.router.address and not packet.is_query

    def questions(self):
        """The two questions that are measured: for the host name, and for a service type."""
        mac = self.router.mac.upper().replace(":", "-")
        return (
            packets.query((f"T5140_{mac}.local", "A")),
            packets.query(("_ipp._tcp.local", "PTR")),
        )

    def record_answers(self, path):
        """Writes the daemon's answers to both questions as the floor program reads them."""
        with open(path, "wb") as file:
            for question, answers in zip(self.questions(), (1, PRINTERS)):
                mark = self.lab.capture.mark()
                self.lab.host.send(question)
                seen = self.lab.capture.wait_for(
                    self._is_response, answers * TRANSMISSIONS, mark
                )
                for payload in dict.fromkeys(packet.payload for packet in seen):
                    file.write(struct.pack("!H", len(payload)) + payload)

    def stop_capture(self):
        """Stops looking at the packets, which would cost time that is being measured."""
        self.lab.capture.close()

    @property
    def descriptors(self):
        return self.lab.host.network.descriptor, self.log

    def close(self):
        if self.process is not None:
            self.process.kill()
            self.process.wait()
        self.lab.close()
        os.close(self.log)
        os.close(self._log_end)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
