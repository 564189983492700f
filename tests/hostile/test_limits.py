"""Limits of the machine under floods: what is lost is lost, nothing stays behind."""

from concurrent.futures import ThreadPoolExecutor

import pytest
from lab.flooding import BROWSE_QUESTION, EVERYTHING_QUESTION, flood, quiet_router
from lab.packaged import as_packaged
from lab.usage import usage_once_senders_ended
from ownuser import NO_THREAD, as_own_user

pytestmark = pytest.mark.release

PRINTERS = 10
FLOODS = 4
# Beside the four lasting threads and what the user has otherwise: nothing.
THREADS = 150


def flood_four_times(lab, daemon, rate, question=BROWSE_QUESTION):
    """Memory at rest in KiB after each flood, after which every question is answered, and the
    most that daemon and kernel held during each."""
    at_rest = []
    most = []
    for _ in range(FLOODS):
        counted, peak = flood(lab, question, rate, 3)
        at_rest.append(usage_once_senders_ended(daemon.pid).memory)
        most.append(peak.total)
        after, _ = flood(lab, BROWSE_QUESTION, 10, 1)
        usage_once_senders_ended(daemon.pid)
        assert after["received"] == 10 * PRINTERS * 3
        print(counted, f"{at_rest[-1]} KiB at rest, {peak}")
    return at_rest, most


@pytest.mark.seconds(40)
def test_limit_on_threads_loses_packets_with_a_line_each_and_no_memory(lab, monkeypatch):
    user = as_own_user(lab.router, monkeypatch)
    limited = [*user, "prlimit", f"--nproc={THREADS}", "--"]
    daemon = quiet_router(lab, PRINTERS, wrapper=limited)
    at_rest, _ = flood_four_times(lab, daemon, 500)
    assert set(daemon.texts("stderr")) == {NO_THREAD}
    assert at_rest[-1] <= at_rest[0] + 64


@pytest.mark.alone
@pytest.mark.seconds(40)
@pytest.mark.parametrize("rate", [500, 5000])
def test_packaged_limit_bounds_what_a_flood_takes_of_the_router(lab, rate):
    daemon = quiet_router(lab, PRINTERS, **as_packaged())
    at_rest, most = flood_four_times(lab, daemon, rate, EVERYTHING_QUESTION)
    assert set(daemon.texts("stderr")) == {NO_THREAD}
    assert at_rest[-1] <= at_rest[0] + 64
    # What else runs on the machine adds to what its kernel holds, never takes from it.
    assert min(most) < 16 * 1024


@pytest.mark.alone
@pytest.mark.seconds(15)
def test_printer_that_is_plugged_in_during_a_flood_is_published(lab):
    daemon = quiet_router(lab, PRINTERS - 1, **as_packaged())
    with ThreadPoolExecutor(1) as pool:
        flooding = pool.submit(flood, lab, EVERYTHING_QUESTION, 5000, 5)
        daemon.wait_for_line(NO_THREAD)
        lab.router.plug_in(PRINTERS - 1)
        daemon.wait_for_line(f"[Bonjour] device insert lp{PRINTERS - 1}")
        flooding.result()
    usage_once_senders_ended(daemon.pid)
    assert set(daemon.texts("stderr")) == {NO_THREAD}
    answers, _ = flood(lab, BROWSE_QUESTION, 10, 1)
    assert answers["received"] == 10 * PRINTERS * 3
