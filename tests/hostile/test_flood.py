"""Floods: more questions than a link of people asks. What is lost is lost, nothing stays behind."""

from concurrent.futures import ThreadPoolExecutor

import pytest
from lab.flooding import BROWSE_QUESTION, EVERYTHING_QUESTION, HOST_QUESTION, flood, quiet_router
from lab.packaged import as_packaged
from lab.usage import dropped_datagrams, usage, usage_once_senders_ended

pytestmark = pytest.mark.release

NO_THREAD = "[Bonjour] pthread_create: Resource temporarily unavailable"
PRINTERS = 10
TRANSMISSIONS = 3
# Senders live for less than a second: by then a flood takes as much as it ever will.
SECONDS = 2

# A sender thread holds two pages of stack, a page for its job and what the libc and the sanitizers
# keep of a thread.
MEMORY_PER_THREAD = 16
# The libc keeps up to 40 MiB of the stacks of ended threads for the next ones, each with at most
# 16 KiB of memory, and of heaps what lies below a block that is in use.
MEMORY_KEPT = 640 * 16 + 16 * 1024
# KiB that the heap's end may move between two floods that are alike.
HEAP_SLACK = 64
PACKAGED_MOST = 16 * 1024


@pytest.mark.alone
@pytest.mark.seconds(15)
@pytest.mark.parametrize(
    "question, printers", [(HOST_QUESTION, 0), (BROWSE_QUESTION, PRINTERS)], ids=["host", "browse"]
)
def test_thousand_questions_a_second_are_all_answered_and_the_next_flood_takes_no_more(
    lab, question, printers
):
    daemon = quiet_router(lab, printers)
    answers = printers or 1
    before = usage(daemon.pid)
    at_rest = []
    for _ in range(2):
        dropped = dropped_datagrams(daemon.pid)
        counted, peak = flood(lab, question, 1000, SECONDS)
        after = usage_once_senders_ended(daemon.pid)
        dropped = dropped_datagrams(daemon.pid) - dropped
        print(counted, f"dropped: {dropped}, {peak.threads} threads, {peak.memory} KiB;", after)
        assert counted["sent"] == 1000 * SECONDS
        # A machine that is too busy to run the daemon drops questions before they reach it.
        assert counted["received"] == (counted["sent"] - dropped) * answers * TRANSMISSIONS
        # No more senders than a second's questions make, and their memory.
        assert peak.threads <= before.threads + 1000 * answers
        assert peak.memory <= before.memory + MEMORY_KEPT + peak.threads * MEMORY_PER_THREAD
        assert (after.threads, after.descriptors) == (before.threads, before.descriptors)
        at_rest.append(after.memory)
    assert daemon.texts("stderr") == []
    assert at_rest[0] <= before.memory + MEMORY_KEPT
    assert at_rest[1] <= at_rest[0] * 1.25


@pytest.mark.alone
@pytest.mark.seconds(25)
def test_packaged_limit_bounds_what_floods_take_and_printers_that_come_meanwhile_are_published(lab):
    daemon = quiet_router(lab, PRINTERS - 1, **as_packaged())
    with ThreadPoolExecutor(1) as pool:
        flooding = pool.submit(flood, lab, EVERYTHING_QUESTION, 5000, SECONDS)
        daemon.wait_for_line(NO_THREAD)
        lab.router.plug_in(PRINTERS - 1)
        daemon.wait_for_line(f"[Bonjour] device insert lp{PRINTERS - 1}")
        flooding.result()
    at_rest, most = [usage_once_senders_ended(daemon.pid).memory], []
    for rate in (5000, 500):
        counted, peak = flood(lab, EVERYTHING_QUESTION, rate, SECONDS)
        at_rest.append(usage_once_senders_ended(daemon.pid).memory)
        most.append(peak.total)
        print(counted, f"{at_rest[-1]} KiB at rest, {peak}")
        after, _ = flood(lab, BROWSE_QUESTION, 10, 1)
        usage_once_senders_ended(daemon.pid)
        assert after["received"] == 10 * PRINTERS * TRANSMISSIONS
    assert set(daemon.texts("stderr")) == {NO_THREAD}
    assert max(at_rest[1:]) <= at_rest[0] + HEAP_SLACK
    # What else runs on the machine adds to what its kernel holds, never takes from it.
    assert min(most) < PACKAGED_MOST
