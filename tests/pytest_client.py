"""Runs pytest with these arguments. Where ./test keeps a server (pytest_server.py), in a process
that has pytest loaded already: loading it is most of what a test in the lab computes."""

import json
import os
import socket
import sys

# The environment's name for the server's abstract socket.
SERVER = "BONJOUR_PYTEST_SERVER"
FAILED = 1


def request(name):
    """Has the server run it with this process's standard descriptors. The exit status."""
    asked = {
        "arguments": sys.argv[1:],
        "directory": os.getcwd(),
        "environment": {name: value for name, value in os.environ.items() if name != SERVER},
    }
    with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as server:
        server.connect("\0" + name)
        socket.send_fds(server, [json.dumps(asked).encode()], [0, 1, 2])
        status = server.recv(1)
    return status[0] if status else FAILED


def main():
    if SERVER in os.environ:
        return request(os.environ[SERVER])
    os.execv(sys.executable, [sys.executable, "-m", "pytest", *sys.argv[1:]])


if __name__ == "__main__":
    sys.exit(main())
