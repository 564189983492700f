"""Has pytest and the lab loaded, and forks a process for each run of pytest that a client asks for
(pytest_client.py): pytest_server.py NAME, that of its abstract socket. Prints a line when it
listens."""

import contextlib
import gc
import json
import os
import pathlib
import selectors
import signal
import socket
import sys

import pytest
from pytest_client import FAILED

ROOT = pathlib.Path(__file__).resolve().parent.parent

# The longest request: arguments and environment.
REQUEST_SIZE = 1 << 20


def load():
    """Imports what each run needs."""
    with open(os.devnull, "w") as nothing, contextlib.redirect_stdout(nothing):
        pytest.main(["--version"])
    sys.path.insert(0, str(ROOT))
    import lab.browser
    import lab.usage  # noqa: F401
    # Collecting garbage would write to what the processes share.
    gc.freeze()


def run(message, descriptors):
    """The status of a run, in the process that was forked for it."""
    for standard, descriptor in enumerate(descriptors):
        os.dup2(descriptor, standard)
    os.closerange(3, os.sysconf("SC_OPEN_MAX"))
    asked = json.loads(message)
    os.environ.clear()
    os.environ.update(asked["environment"])
    # What Python itself takes from the environment when it starts.
    sys.dont_write_bytecode = bool(os.environ.get("PYTHONDONTWRITEBYTECODE"))
    sys.pycache_prefix = os.environ.get("PYTHONPYCACHEPREFIX")
    os.chdir(asked["directory"])
    sys.path.insert(0, asked["directory"])
    return pytest.main(asked["arguments"])


class Server:
    def __init__(self, listening):
        self._listening = listening
        self._watched = selectors.DefaultSelector()
        self._watch(listening, self._begin)

    def _watch(self, descriptor, call_when_readable):
        self._watched.register(descriptor, selectors.EVENT_READ, call_when_readable)

    def serve(self):
        while True:
            for key, _ in self._watched.select():
                key.data()

    def _begin(self):
        client, _ = self._listening.accept()
        message, descriptors, _, _ = socket.recv_fds(client, REQUEST_SIZE, 3)
        process = os.fork()
        if process == 0:
            status = FAILED
            try:
                status = run(message, descriptors)
            finally:
                sys.stdout.flush()
                sys.stderr.flush()
                os._exit(status)
        for descriptor in descriptors:
            os.close(descriptor)
        end = os.pidfd_open(process)
        self._watch(end, lambda: self._answer(client, process, end))
        self._watch(client, lambda: self._stop(client, process))

    def _stop(self, client, process):
        """The client was ended."""
        with contextlib.suppress(KeyError, ProcessLookupError):
            self._watched.unregister(client)
            os.kill(process, signal.SIGTERM)

    def _answer(self, client, process, end):
        status = os.waitstatus_to_exitcode(os.waitpid(process, 0)[1])
        self._watched.unregister(end)
        os.close(end)
        with client, contextlib.suppress(KeyError, OSError):
            self._watched.unregister(client)
            client.send(bytes([status if status >= 0 else 128 - status]))


def main(name):
    load()
    with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as listening:
        listening.bind("\0" + name)
        listening.listen()
        print("listening", flush=True)
        Server(listening).serve()


if __name__ == "__main__":
    main(sys.argv[1])
