"""Which calls the daemon makes on its way, and so which faults there are."""

import itertools
import subprocess

from sweep.walk import ERRORS, Fault

# A thread that makes the same call again and again is polling: this many of them are swept. The
# longest series that is not polling is the datagrams that end the probe.
SERIES_MAX = 12

# What the daemon calls and what does not fail: on memory alone, with valid arguments alone, or
# without a failure that it could notice.
CANNOT_FAIL = frozenset(
    "__errno_location __libc_start_main __snprintf_chk __stack_chk_fail free inet_addr memchr "
    "memcmp munmap pthread_attr_destroy pthread_attr_init pthread_attr_setdetachstate "
    "pthread_cond_destroy pthread_join pthread_mutex_destroy pthread_mutex_lock "
    "pthread_mutex_unlock pthread_sigmask sigaddset sigemptyset signal strchr strcmp strerror "
    "strlen strncmp strnlen memcpy memset".split()
)


def unknown_calls(binary):
    """What a program calls of libc that is neither swept nor known not to fail."""
    listed = subprocess.run(["nm", "-D", "-P", binary], check=True, capture_output=True, text=True)
    symbols = (line.split() for line in listed.stdout.splitlines())
    called = {name.partition("@")[0] for name, kind, *_ in symbols if kind == "U"}
    return called - ERRORS.keys() - CANNOT_FAIL


def _numbers(calls, function):
    """The numbers of the calls of a function that are swept, of a thread's calls in their order."""
    number = 0
    for _, series in itertools.groupby(
        calls, key=lambda call: (call.function, call.about, call.text, call.thread)
    ):
        for place, call in enumerate(series):
            if call.function == function:
                if place < SERIES_MAX:
                    yield number
                number += 1


def _faults_of(walks, functions, on_sockets):
    first, *others = walks
    for phase in first.phase_starts:
        for thread, calls in first.calls_of(phase).items():
            # What not each of the walks reaches depends on the machine's load.
            reached = [
                [call.function for call in walk.calls_of(phase)[thread]] for walk in others
            ]
            for function in functions:
                most = min(each.count(function) for each in reached)
                for number in _numbers(calls, function):
                    if number < most:
                        for lasts in (False, True):
                            yield Fault(phase, thread, function, number, lasts, on_sockets)


def all_faults(walks, walks_on_sockets):
    """The faults at the calls that each of the given walks without a fault made. The log goes to
    sockets where the fault is one of send(2), which is called for nothing else."""
    others = [function for function in ERRORS if function != "send"]
    yield from _faults_of(walks, others, False)
    yield from _faults_of(walks_on_sockets, ["send"], True)
