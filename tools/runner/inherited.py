"""What a process inherits from whoever started it, and tests and tools cannot cope with."""

import os
import signal


def settle():
    """Has standard descriptors, the usual umask and locale, and no signal blocked. A signal that
    this process was started to ignore (by nohup, or in a shell's background) goes on to do nothing
    to it, but what it starts does not ignore it."""
    for number in range(3):
        try:
            os.fstat(number)
        except OSError:
            os.open(os.devnull, os.O_RDWR)
    signal.signal(signal.SIGCHLD, signal.SIG_DFL)
    signal.pthread_sigmask(signal.SIG_SETMASK, ())
    # Python itself ignores SIGPIPE and SIGXFSZ, and takes that back in what it starts.
    for number in signal.valid_signals() - {signal.SIGPIPE, signal.SIGXFSZ}:
        if signal.getsignal(number) == signal.SIG_IGN:
            signal.signal(number, lambda *_: None)
    os.umask(0o022)
    for name in list(os.environ):
        if name.startswith(("LC_", "LANG")):
            del os.environ[name]
    os.environ["LC_ALL"] = "C"
