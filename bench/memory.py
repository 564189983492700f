"""What the daemon holds as it is packaged: private memory after a burst of questions."""

import time

from bench.stage import PRINTERS, Stage
from lab.packaged import as_packaged
from lab.printers import Printer
from lab.usage import private_memory, usage_once_senders_ended

BURST = 1000
_BEHIND_SECONDS = 1.0


def measure():
    """Private memory in KiB with ten printers, a second after a burst of browse questions."""
    with Stage() as stage:
        stage.run_daemon(printers=0, **as_packaged())
        pid = stage.process.pid
        mark = stage.lab.capture.mark()
        printers = [Printer(port, "HP", f"LaserJet {port}") for port in range(PRINTERS)]
        stage.router.plug_in_all(printers)
        stage.wait_for_announcements(PRINTERS, mark)
        usage_once_senders_ended(pid)

        stage.stop_capture()
        _, browse = stage.questions()
        for _ in range(BURST):
            stage.lab.host.send(browse)
        time.sleep(_BEHIND_SECONDS)
        return private_memory(pid)
