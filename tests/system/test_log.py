"""Where the log goes: a reader that hangs, descriptors that were closed."""

import contextlib
import fcntl
import os

import pytest
import wire
from lab.waiting import TimedOut
from responders import with_both

FIFO = "/dev/.log"
PAGE = 4096
# More lines than a page takes, and no more questions than a socket does.
QUESTIONS = 100
TO_THE_FIFO = ["sh", "-c", f'exec "$0" "$@" > {FIFO} 2>&1']


@contextlib.contextmanager
def hung_logger(router):
    """A pipe of one page in the router's sandbox that nobody reads as long as this is entered."""
    path = router.sandbox.path(FIFO)
    os.mkfifo(path)
    descriptor = os.open(path, os.O_RDWR)
    fcntl.fcntl(descriptor, fcntl.F_SETPIPE_SZ, PAGE)
    try:
        yield descriptor
    finally:
        os.close(descriptor)


def start_unread(lab, wrapper):
    """Starts the daemon and waits until it answers, without a line of it."""
    daemon = lab.router.start(ready=False, wrapper=wrapper)
    lab.wait_for_packet(wire.HOST_PROBE)
    lab.router.end_probe()
    # It is up when the answering loop takes the first question.
    for _ in range(100):
        since = lab.capture.mark()
        lab.host.send(wire.HOST_QUESTION)
        with contextlib.suppress(TimedOut):
            lab.wait_for_packet(wire.HOST_ANSWER, since, bound=0.2)
            return daemon
    raise TimedOut("the daemon answers no question")


def test_logger_that_hangs_changes_nothing(lab, router):
    router.plug_in(0)
    with hung_logger(router) as log:
        start_unread(lab, TO_THE_FIFO)
        lab.wait_for_transmissions(wire.IPP_RECORDS)
        since = lab.capture.mark()
        for _ in range(QUESTIONS):
            lab.host.send(wire.HOST_QUESTION)
        lab.wait_for_packet(wire.HOST_ANSWER, since, 3 * QUESTIONS)
        since = lab.capture.mark()
        router.stop()
        lab.wait_for_transmissions(wire.PDL_GOODBYE, since)
        lab.wait_for_transmissions(wire.IPP_GOODBYE, since)
        os.set_blocking(log, False)
        read = os.read(log, 1 << 20)
        assert read.endswith(b"\n")
        assert all(line.startswith(b"[") for line in read.splitlines())


@with_both
@pytest.mark.parametrize("closed", ["0<&- 1>&- 2>&-", "1>&-"], ids=["all", "output"])
def test_closed_standard_descriptors_are_not_given_to_sockets_and_devices(lab, router, closed):
    router.connect_device(0, "MFG:HP;MODEL:Model 12;CMD:PJL,PCL;")
    router.plug_in(0, model="")
    daemon = router.start(ready=False, wrapper=["sh", "-c", f'exec "$0" "$@" {closed}'])
    lab.wait_for_packet(lambda packet: packet.is_query)
    router.end_probe()
    lab.wait_for_packet(lambda packet: b"\x0bty=Model 12" in packet.payload, count=2)
    for part in closed.split():
        assert os.readlink(f"/proc/{daemon.pid}/fd/{part[0]}") == "/dev/null"
