"""Floods: more questions than a link of people asks. Each is answered, nothing stays behind."""

import pytest
from lab.flooding import BROWSE_QUESTION, HOST_QUESTION, flood, quiet_router
from lab.usage import dropped_datagrams, usage, usage_once_senders_ended

pytestmark = [pytest.mark.alone, pytest.mark.release]

PRINTERS = 10
TRANSMISSIONS = 3

# A sender thread holds two pages of stack, a page for its job and what the libc and the sanitizers
# keep of a thread; it lives for three quarters of a second.
MEMORY_PER_THREAD = 16
# The libc keeps up to 40 MiB of the stacks of ended threads for the next ones, each with at most
# 16 KiB of memory, and of heaps what lies below a block that is in use.
MEMORY_KEPT = 640 * 16 + 16 * 1024


@pytest.mark.seconds(30)
@pytest.mark.parametrize(
    "question, printers", [(HOST_QUESTION, 0), (BROWSE_QUESTION, PRINTERS)], ids=["host", "browse"]
)
def test_thousand_questions_a_second_are_all_answered_and_nothing_stays_behind(
    lab, question, printers
):
    daemon = quiet_router(lab, printers)
    before = usage(daemon.pid)

    counted, peak = flood(lab, question, 1000, 10)
    after = usage_once_senders_ended(daemon.pid)

    dropped = dropped_datagrams(daemon.pid)
    print(counted, f"dropped: {dropped}, peak: {peak.threads} threads, {peak.memory} KiB;", after)
    answers = printers or 1
    assert counted["sent"] == 10000
    # A machine that is too busy to run the daemon drops questions before they reach it.
    assert counted["received"] == (counted["sent"] - dropped) * answers * TRANSMISSIONS
    assert daemon.texts("stderr") == []
    # No more senders than a second's questions make, and their memory.
    assert peak.threads <= before.threads + 1000 * answers
    assert peak.memory <= before.memory + MEMORY_KEPT + peak.threads * MEMORY_PER_THREAD
    assert (after.threads, after.descriptors) == (before.threads, before.descriptors)
    assert after.memory <= before.memory + MEMORY_KEPT


@pytest.mark.seconds(30)
def test_memory_of_a_flood_is_used_again_by_the_next_one(lab):
    daemon = quiet_router(lab)
    flood(lab, HOST_QUESTION, 1000, 5)
    first = usage_once_senders_ended(daemon.pid)
    flood(lab, HOST_QUESTION, 1000, 5)
    second = usage_once_senders_ended(daemon.pid)
    print(first, second)
    assert second.memory <= first.memory * 1.25


@pytest.mark.seconds(30)
def test_answers_resume_when_a_flood_beyond_all_measure_ends(lab):
    daemon = quiet_router(lab, PRINTERS)
    counted, peak = flood(lab, BROWSE_QUESTION, 5000, 5)
    after = usage_once_senders_ended(daemon.pid)
    print(counted, f"peak: {peak.threads} threads, {peak.memory} KiB;", after)
    assert daemon.running
    counted, _ = flood(lab, BROWSE_QUESTION, 10, 1)
    assert counted["received"] == 10 * PRINTERS * TRANSMISSIONS
