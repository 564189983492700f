"""Where the log goes: a reader that hangs, descriptors that were closed."""

import contextlib
import os

import pytest
import wire
from lab.waiting import TimedOut

FIFO = "/dev/.log"
# A pipe takes some 800 lines about a question.
QUESTIONS = 1500
UNDER_WAY = 150
TO_THE_FIFO = ["sh", "-c", f'exec "$0" "$@" > {FIFO} 2>&1']
# As on a kernel that is not the vendor's: a directory with one file stands in the place of /proc.
WITHOUT_PROC = [
    *("unshare", "--mount", "sh", "-c"),
    "mkdir /dev/.proc && cp /proc/printer_status /dev/.proc && "
    f'exec 3> {FIFO} && mount --bind /dev/.proc /proc && exec "$0" "$@" >&3 2>&1 3>&-',
]
THROUGH_A_SOCKET = [
    "python3",
    "-c",
    "import os, socket, sys\n"
    "reader, log = socket.socketpair()\n"
    "os.set_inheritable(reader.fileno(), True)\n"
    "os.dup2(log.fileno(), 1)\n"
    "os.dup2(log.fileno(), 2)\n"
    "os.execv(sys.argv[1], sys.argv[1:])",
]


@contextlib.contextmanager
def hung_logger(router):
    """A pipe in the router's sandbox that nobody reads as long as this is entered."""
    path = router.sandbox.path(FIFO)
    os.mkfifo(path)
    descriptor = os.open(path, os.O_RDWR)
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


@pytest.mark.seconds(15)
@pytest.mark.parametrize(
    "wrapper",
    [
        pytest.param(TO_THE_FIFO, id="pipe"),
        # The sanitizers' runtimes need a /proc that shows the process.
        pytest.param(WITHOUT_PROC, id="pipe and no proc", marks=pytest.mark.release),
        pytest.param(THROUGH_A_SOCKET, id="socket"),
    ],
)
def test_logger_that_hangs_changes_nothing(lab, router, wrapper):
    router.plug_in(0)
    with hung_logger(router) as log:
        start_unread(lab, wrapper)
        lab.wait_for_transmissions(wire.IPP_RECORDS)
        since = lab.capture.mark()
        for number in range(1, QUESTIONS + 1):
            lab.host.send(wire.HOST_QUESTION)
            # So that none is lost on its way there.
            if number % 50 == 0 and number > UNDER_WAY:
                answered = number - UNDER_WAY
                lab.wait_for_packet(wire.HOST_ANSWER, since, 3 * answered)
        lab.wait_for_packet(wire.HOST_ANSWER, since, 3 * QUESTIONS)
        since = lab.capture.mark()
        router.stop()
        lab.wait_for_transmissions(wire.PDL_GOODBYE, since)
        lab.wait_for_transmissions(wire.IPP_GOODBYE, since)
        if wrapper is not THROUGH_A_SOCKET:
            os.set_blocking(log, False)
            read = os.read(log, 1 << 20)
            assert read.endswith(b"\n")
            assert all(line.startswith(b"[") for line in read.splitlines())


@pytest.mark.parametrize(
    "closed", ["0<&-", "1>&-", "2>&-", "0<&- 1>&- 2>&-"], ids=["input", "output", "error", "all"]
)
def test_closed_standard_descriptors_are_not_given_to_sockets_and_devices(lab, router, closed):
    router.connect_device(0, "MFG:HP;MODEL:Model 12;CMD:PJL,PCL;")
    router.plug_in(0, model="")
    daemon = start_unread(lab, ["sh", "-c", f'exec "$0" "$@" {closed}'])
    lab.wait_for_packet(lambda packet: b"\x0bty=Model 12" in packet.payload, count=6)
    for part in closed.split():
        assert os.readlink(f"/proc/{daemon.pid}/fd/{part[0]}") == "/dev/null"
