"""A virtual machine on the lab's link: QEMU without KVM, its console, log and shell."""

import re
import select
import socket
import subprocess
import threading
import time

from lab.daemon import Line, Lines
from lab.link import SWITCH
from lab.vm.usb_printer import UsbPrinter
from lab.waiting import PATIENCE, TimedOut, wait_until

# Printers that can be plugged in; the controller has more ports so that QEMU adds no hub.
USB_PORTS = 12
_CONTROLLER_PORTS = 15
_TAP = "machine0"
_START_BOUND = 10.0
_LOG_LINE = re.compile(
    r"\w+ +\d+ [\d:]+ \S+ (?:\w+\.\w+ )?(?P<tag>[^ :\[]+)(?:\[\d+\])?: (?P<text>.*)"
)
_STATUS = re.compile(rb"@@status (\d+)\n\Z")


class Output(Lines):
    """Lines that come from one pipe or socket after the other, each as `cleaned` makes it."""

    def __init__(self, stream, cleaned=str):
        super().__init__()
        self._stream = stream
        self._cleaned = cleaned

    def read(self, file):
        """Takes what comes from `file` until its end, which end() waits for."""
        self._file = file
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        for line in self._file:
            text = line.rstrip(b"\r\n").decode(errors="backslashreplace")
            self.lines.append(Line(time.time(), self._stream, self._cleaned(text)))

    def end(self):
        self._thread.join()
        self._file.close()


def _without_prefix(text):
    """A line of the system's log without date and host, and without the tag if it is the
    daemon's."""
    line = _LOG_LINE.fullmatch(text)
    if not line:
        return text
    return line["text"] if line["tag"] == "bonjour" else f"{line['tag']}: {line['text']}"


class Machine:
    def __init__(self, link, kind, kernel, initrd, stick, disk=None):
        """Starts a machine of this Kind with these files; it boots while this returns."""
        self.console = Output("console")
        self.log = Output("log", _without_prefix)
        self._printers = {}
        self._switch = link.network
        self._switch.ip(
            f"tuntap add {_TAP} mode tap",
            f"link set {_TAP} master {SWITCH}",
            f"link set {_TAP} up",
        )
        self._command = [
            *kind.board.qemu,
            *("-accel", "tcg", "-m", str(kind.megabytes), "-nodefaults", "-no-reboot"),
            *("-display", "none", "-serial", "stdio"),
            *("-kernel", str(kernel), "-initrd", str(initrd)),
            *("-append", f"{kind.board.options} quiet panic=-1 net.ifnames=0"),
            # The first of the virtio devices: vport0 in the machine.
            *("-device", "virtio-serial-pci"),
            *("-device", "virtserialport,chardev=shell,nr=1"),
            *("-device", "virtserialport,chardev=log,nr=2"),
            *("-netdev", f"tap,id=link,ifname={_TAP},script=no,downscript=no"),
            *("-device", "virtio-net-pci,netdev=link,romfile="),
            *("-device", f"qemu-xhci,id=usb,p2={_CONTROLLER_PORTS},p3={_CONTROLLER_PORTS}"),
        ]
        for port in range(USB_PORTS):
            path = f"socket,id=usb{port},path=usb{port},abstract=on,server=on,wait=off"
            device = f"usb-redir,chardev=usb{port},bus=usb.0"
            self._command += ["-chardev", path, "-device", device]
        for image in filter(None, (disk, stick)):
            self._command += ["-drive", f"if=virtio,format=raw,file={image}"]
        self._start()

    def _start(self):
        self._shell, shell = socket.socketpair()
        log_end, log = socket.socketpair()
        channels = [
            *("-chardev", f"socket,id=shell,fd={shell.fileno()}"),
            *("-chardev", f"socket,id=log,fd={log.fileno()}"),
        ]
        # It ends with this process, whatever ends that.
        with self._switch.entered():
            self._process = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", *self._command, *channels],
                stdin=subprocess.DEVNULL,
                stdout=subprocess.PIPE,
                stderr=subprocess.STDOUT,
                pass_fds=(shell.fileno(), log.fileno()),
                start_new_session=True,
            )
        shell.close()
        log.close()
        self.console.read(self._process.stdout)
        self.log.read(log_end.makefile("rb"))
        log_end.close()

    def _end(self):
        self._process.wait()
        self._shell.close()
        self.console.end()
        self.log.end()

    # Its shell

    def run(self, command, bound=30.0):
        """What `command` prints, run by the machine's shell; raises if its status is not 0."""
        status, printed = self.try_to_run(command, bound)
        if status != 0:
            raise RuntimeError(f"{command}: status {status}\n{printed}")
        return printed

    def try_to_run(self, command, bound=30.0):
        """The status of `command` and what it prints."""
        self._shell.sendall(f"{{ {command}\n}} < /dev/null 2>&1; echo @@status $?\n".encode())
        taken = b""
        deadline = time.monotonic() + bound * PATIENCE
        while not (done := _STATUS.search(taken)):
            left = deadline - time.monotonic()
            if left <= 0 or not select.select([self._shell], [], [], left)[0]:
                raise TimedOut(f"{command}: no end, only {taken!r}")
            more = self._shell.recv(65536)
            if not more:
                raise TimedOut(f"{command}: the machine ended after {taken!r}")
            taken += more
        return int(done[1]), taken[: done.start()].decode(errors="backslashreplace")

    def wait_until(self, condition, bound=10.0):
        """Waits until the shell's command `condition` has the status 0; raises TimedOut."""
        wait_until(lambda: self.try_to_run(condition)[0] == 0, condition, bound)

    # Its printers

    def plug_in(self, port, device_id, held=False):
        """Plugs a printer into a free port of the machine; for the rest see UsbPrinter."""
        if port not in range(USB_PORTS) or port in self._printers:
            raise ValueError(f"{port} is no free port")
        self._printers[port] = UsbPrinter(self._connect(f"\0usb{port}"), device_id, held)
        return self._printers[port]

    def _connect(self, address):
        deadline = time.monotonic() + _START_BOUND * PATIENCE
        while True:
            try:
                with self._switch.entered():
                    connection = socket.socket(socket.AF_UNIX)
                connection.connect(address)
                return connection
            except ConnectionRefusedError:
                connection.close()
                if not self.running or time.monotonic() > deadline:
                    raise
                time.sleep(0.01)

    def pull_out(self, port):
        if port not in self._printers:
            raise ValueError(f"there is no printer at port {port}")
        self._printers.pop(port).pull_out()

    def pull_all_out(self):
        for port in list(self._printers):
            self.pull_out(port)

    # Its end

    @property
    def running(self):
        return self._process.poll() is None

    def _tell(self, command, bound):
        """Runs `command`, after which the machine is off; raises TimedOut."""
        self._shell.sendall(f"{command}\n".encode())
        try:
            self._process.wait(bound * PATIENCE)
        except subprocess.TimeoutExpired:
            raise TimedOut(f"the machine is still on after {command}") from None

    def reboot(self, bound=30.0):
        """Reboots it, and returns when it comes up again. Its printers stay plugged in."""
        self._tell("reboot", bound)
        self._end()
        printers = {port: printer.device_id for port, printer in self._printers.items()}
        self.pull_all_out()
        self._start()
        for port, device_id in printers.items():
            self.plug_in(port, device_id)

    def power_off(self, bound=30.0):
        """Switches it off, and waits until it is; raises TimedOut."""
        self._tell("poweroff", bound)

    def close(self):
        self._process.kill()
        self._end()
        self.pull_all_out()
        self.console.lines.close()
        self.log.lines.close()
        self._switch.ip(f"link del {_TAP}")
