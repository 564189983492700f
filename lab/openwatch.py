"""Notices when a file is opened, by way of the kernel's inotify."""

import ctypes
import os
import select
import struct
import time

from lab.waiting import PATIENCE, TimedOut

_IN_OPEN = 0x20
_EVENT = struct.Struct("iIII")
_libc = ctypes.CDLL(None, use_errno=True)


def _checked(result):
    if result < 0:
        number = ctypes.get_errno()
        raise OSError(number, os.strerror(number))
    return result


class OpenWatch:
    """Watches one file at a time, by its inode: renaming it changes nothing."""

    def __init__(self):
        self._descriptor = _checked(_libc.inotify_init1(os.O_CLOEXEC | os.O_NONBLOCK))
        self._watched = None

    def watch(self, path):
        """Watches the file at `path` from now on, instead of the one before."""
        encoded = os.fsencode(path)
        self._watched = _checked(_libc.inotify_add_watch(self._descriptor, encoded, _IN_OPEN))

    def wait(self, what, bound=10.0):
        """Waits for an open of the watched file since watch(); raises TimedOut naming `what`."""
        deadline = time.monotonic() + bound * PATIENCE
        while True:
            left = max(0.0, deadline - time.monotonic())
            if not select.select([self._descriptor], [], [], left)[0]:
                raise TimedOut(f"{bound * PATIENCE} s passed without: {what}")
            events = os.read(self._descriptor, 65536)
            position = 0
            while position < len(events):
                watched, mask, _, length = _EVENT.unpack_from(events, position)
                position += _EVENT.size + length
                if watched == self._watched and mask & _IN_OPEN:
                    return

    def close(self):
        if self._descriptor >= 0:
            os.close(self._descriptor)
            self._descriptor = -1
