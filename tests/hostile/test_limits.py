"""Limits of the machine under floods: what is lost is lost, nothing stays behind."""

import shutil

import pytest
from lab.flooding import BROWSE_QUESTION, flood, quiet_router
from lab.daemon import binary
from lab.usage import usage_once_senders_ended

pytestmark = [pytest.mark.alone, pytest.mark.release]

PRINTERS = 10
FLOODS = 4
# Beside the four lasting threads and what the user has otherwise: nothing.
THREADS = 150
USER = 54321
NO_THREAD = "[Bonjour] pthread_create: Resource temporarily unavailable"

# Root is not subject to a limit on processes and threads.
AS_A_USER = ["setpriv", f"--reuid={USER}", f"--regid={USER}", "--clear-groups"]
INSIDE = "/dev/.bonjour"


def flood_four_times(lab, daemon, rate):
    """Memory at rest in KiB behind each flood, behind which every question is answered."""
    at_rest = []
    for _ in range(FLOODS):
        counted, _ = flood(lab, BROWSE_QUESTION, rate, 4)
        at_rest.append(usage_once_senders_ended(daemon.pid).memory)
        after, _ = flood(lab, BROWSE_QUESTION, 10, 1)
        usage_once_senders_ended(daemon.pid)
        assert after["received"] == 10 * PRINTERS * 3
        print(counted, at_rest[-1])
    return at_rest


@pytest.mark.seconds(40)
def test_limit_on_threads_loses_packets_with_a_line_each_and_no_memory(lab, monkeypatch):
    # Where a user without any right on the build's directories finds the daemon.
    shutil.copy(binary(), lab.router.sandbox.path(INSIDE))
    monkeypatch.setenv("BONJOUR", INSIDE)
    limited = [*AS_A_USER, "prlimit", f"--nproc={THREADS}", "--"]
    daemon = quiet_router(lab, PRINTERS, wrapper=limited)
    at_rest = flood_four_times(lab, daemon, 500)
    assert set(daemon.texts("stderr")) == {NO_THREAD}
    assert at_rest[-1] <= at_rest[0] + 64
