"""What the router's kernel shows of its USB printers: the status file and the device nodes."""

import dataclasses
import os
import pathlib
import struct
import subprocess

from lab.openwatch import OpenWatch

STATUS_FILE = "/proc/printer_status"
PORTS = range(10)
_DEVICE_TOOL = "usblp_device"


@dataclasses.dataclass
class Printer:
    """One printer's record in the status file; every line can be chosen."""

    port: int
    manufacturer: str = "HP"
    model: str = "Model 12"
    commands: str = "PJL,PCL"
    first_line: str = None
    last_line: str = ""

    def record(self):
        first = f"usblp{self.port}" if self.first_line is None else self.first_line
        lines = (first, self.manufacturer, self.model, self.commands, self.last_line)
        return "".join(f"{line}\n" for line in lines)


class StatusFile:
    """The file, as the lab reaches it from outside the router's sandbox."""

    def __init__(self, sandbox):
        self.path = sandbox.path(STATUS_FILE)
        self._next = self.path.with_name(".printer_status.next")
        self._opens = OpenWatch()

    def replace(self, content):
        """Replaces the file at once: no reader sees a mixture."""
        self._next.unlink(missing_ok=True)
        self._next.write_bytes(_bytes(content))
        self._opens.watch(self._next)
        os.rename(self._next, self.path)

    def wait_until_read(self):
        """Waits until somebody has opened the file that the last replace() put there. The next
        replace() cannot change what that reader reads."""
        self._opens.wait(what=f"{STATUS_FILE} is opened")

    def close(self):
        self._opens.close()

    def rewrite(self, content):
        """Empties the file and writes it again, as some kernels do; a reader may come between."""
        self.path.write_bytes(_bytes(content))

    def make_unreadable(self):
        """Makes every open fail, even root's, until the next replace()."""
        self._next.unlink(missing_ok=True)
        self._next.symlink_to("/proc/.nowhere")
        os.rename(self._next, self.path)

    def remove(self):
        self.path.unlink()


def _bytes(content):
    return content.encode() if isinstance(content, str) else content


def device_tool():
    """The program that acts as a device node: from the daemon's build, or what the environment
    variable BONJOUR_USBLP_DEVICE names."""
    chosen = os.environ.get("BONJOUR_USBLP_DEVICE")
    if chosen:
        return pathlib.Path(chosen).resolve()
    root = pathlib.Path(__file__).resolve().parent.parent
    found = pathlib.Path(os.environ.get("BONJOUR", root / "build/release/bonjour")).resolve()
    for build in (found.parent, root / "build/release"):
        if (build / "lab" / _DEVICE_TOOL).exists():
            return build / "lab" / _DEVICE_TOOL
    raise FileNotFoundError(f"{_DEVICE_TOOL} is not built; set BONJOUR_USBLP_DEVICE")


class UsbDevice:
    """A node /dev/usblpN inside the sandbox that answers the request for the device id."""

    def __init__(
        self, sandbox, port, device_id="", *, answer=None, open_error=0, request_error=0, delay=0.0
    ):
        """`device_id` is the id's text, sent after its two length bytes; `answer`, if given, is
        instead every byte of the answer, up to 512. `open_error` and `request_error` are errno
        numbers with which opens and requests fail; `delay` is the printer's time to answer, in
        seconds."""
        self.node = f"/dev/usblp{port}"
        self._sandbox = sandbox
        self._id_path = f"/dev/.usblp{port}.id"
        self.set_answer(device_id, answer)
        sandbox.path(self.node).touch()
        command = [device_tool(), "--id", self._id_path, "--open-error", str(open_error)]
        command += ["--request-error", str(request_error), "--delay-ms", str(int(delay * 1000))]
        self._process = sandbox.spawn(
            command + [self.node], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE
        )
        if self._process.stdout.readline() != b"ready\n":
            raise RuntimeError(f"{self.node} could not be made; its message is on stderr")

    def set_answer(self, device_id="", answer=None):
        if answer is None:
            text = _bytes(device_id)
            answer = struct.pack("!H", len(text) + 2) + text
        self._sandbox.path(self._id_path).write_bytes(answer)

    def remove(self):
        """Pulls the device out: its node is gone when this returns."""
        self._process.terminate()
        self._process.wait()
        self._process.stdout.close()
        self._sandbox.path(self.node).unlink()
        self._sandbox.path(self._id_path).unlink()
