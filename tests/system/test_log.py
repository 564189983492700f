"""Where the log goes: a reader that hangs, descriptors that were closed."""

import os
import signal

import wire
from responders import with_both

# More lines than a page takes, and no more questions than a socket does.
QUESTIONS = 100


def test_logger_that_hangs_changes_nothing(lab, daemon_with_printer, host):
    with daemon_with_printer.unread():
        since = lab.capture.mark()
        for _ in range(QUESTIONS):
            host.send(wire.HOST_QUESTION)
        lab.wait_for_packet(wire.HOST_ANSWER, since, 3 * QUESTIONS)
        since = lab.capture.mark()
        daemon_with_printer.signal(signal.SIGTERM)
        lab.wait_for_transmissions(wire.PDL_GOODBYE, since)
        lab.wait_for_transmissions(wire.IPP_GOODBYE, since)
    assert daemon_with_printer.wait_for_exit() == 0
    texts = daemon_with_printer.texts()
    assert all(text.startswith("[") for text in texts)
    assert len(texts) < QUESTIONS


@with_both
def test_closed_standard_descriptors_are_not_given_to_sockets_and_devices(lab, router):
    router.connect_device(0, "MFG:HP;MODEL:Model 12;CMD:PJL,PCL;")
    router.plug_in(0, model="")
    daemon = router.start(ready=False, wrapper=["sh", "-c", 'exec "$0" "$@" 0<&- 1>&- 2>&-'])
    lab.wait_for_packet(lambda packet: packet.is_query)
    router.end_probe()
    lab.wait_for_packet(lambda packet: b"\x0bty=Model 12" in packet.payload, count=2)
    for descriptor in range(3):
        assert os.readlink(f"/proc/{daemon.pid}/fd/{descriptor}") == "/dev/null"
