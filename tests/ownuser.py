"""The daemon as a user that nobody else is, and its limits while it runs.

Root is not subject to a limit on threads, which counts all of a user's on the machine. And a user
may change the limits of its own processes, which root may not in every container.
"""

import contextlib
import os
import shutil
import subprocess

from lab.daemon import binary

NO_THREAD = "[Bonjour] pthread_create: Resource temporarily unavailable"
_USER = 100_000 + os.getpid()
_AS_OWN_USER = ["setpriv", f"--reuid={_USER}", f"--regid={_USER}", "--clear-groups"]
# Where a user without any right on the build's directories finds the daemon.
_INSIDE = "/dev/.bonjour"


def as_own_user(router, monkeypatch):
    """What to put before the command line of the router's next daemon."""
    shutil.copy(binary(), router.sandbox.path(_INSIDE))
    monkeypatch.setenv("BONJOUR", _INSIDE)
    return _AS_OWN_USER


def _prlimit(pid, *options):
    command = [*_AS_OWN_USER, "prlimit", f"--pid={pid}", *options]
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout.strip()


@contextlib.contextmanager
def limited(pid, kind, most):
    """Holds a running daemon of that user to `most` while this is entered; `kind` is an option of
    prlimit."""
    before = _prlimit(pid, f"--{kind}", "--raw", "--noheadings", "--output=SOFT")
    _prlimit(pid, f"--{kind}={most}:")
    try:
        yield
    finally:
        _prlimit(pid, f"--{kind}={before}:")
