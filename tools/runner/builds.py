"""Builds of presets, one after the other, while tests of the earlier ones run."""

import queue
import sys
import threading

import processes
from options import PYTHON


def build(preset, targets=(), output=None, background=False):
    """Builds a preset, or these targets of it; progress goes to `output`. The exit status."""
    options = ["--background"] if background else []
    command = [PYTHON, "-BE", "lab/build.py", *options, preset, *targets]
    return processes.run(command, stdout=output)


class Builds:
    """Builds presets in their order, in a separate thread. Iterating gives each preset as soon as
    it is built, and ends the process if one can't be."""

    def __init__(self, targets):
        """`targets` are those of each preset, none of them standing for all."""
        self._targets = targets
        self._done = queue.SimpleQueue()
        threading.Thread(target=self._build_all, daemon=True).start()

    def _build_all(self):
        for number, (preset, targets) in enumerate(self._targets.items()):
            # Tests need the processor free: they look at times.
            status = build(preset, targets, background=number > 0)
            self._done.put(status)
            if status != 0:
                return

    def __iter__(self):
        for preset in self._targets:
            status = self._done.get()
            if status != 0:
                sys.exit(status)
            yield preset
