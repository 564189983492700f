"""What the daemon costs when nothing happens, beside the least that its polling needs."""

import pathlib
import re
import tempfile
import time

from bench.stage import PRINTERS, Stage, program

_SETTLE = 2.0


def _threads(stage):
    """Processor time in milliseconds and wake-ups so far, over all threads."""
    milliseconds = wakeups = 0
    for task in pathlib.Path(f"/proc/{stage.process.pid}/task").iterdir():
        milliseconds += int((task / "schedstat").read_text().split()[0]) / 1e6
        switches = re.search(r"^voluntary_ctxt_switches:\s+(\d+)", (task / "status").read_text(),
                             re.MULTILINE)
        wakeups += int(switches[1])
    return milliseconds, wakeups


def _calls(trace, begin, end):
    """System calls that strace saw begin between two times, by name."""
    calls = {}
    for line in trace.read_text().splitlines():
        entry = re.match(r"\d+ +(\d+\.\d+) ([a-z0-9_]+)\(", line)
        if entry and begin <= float(entry[1]) < end:
            calls[entry[2]] = calls.get(entry[2], 0) + 1
    return calls


def measure(seconds):
    """Figures per minute, by target: processor time in milliseconds, wake-ups, and system calls by
    name. The calls are those of runs of their own, which strace slows down."""
    with tempfile.TemporaryDirectory() as directory, Stage() as daemon, Stage() as floor, \
            Stage() as traced_daemon, Stage() as traced_floor:
        traces = {name: pathlib.Path(directory) / f"{name}.trace" for name in ("daemon", "floor")}
        tracing = {
            name: ["strace", "-D", "-f", "-ttt", "-o", path] for name, path in traces.items()
        }
        answers = pathlib.Path(directory) / "answers"
        traced_daemon.run_daemon(wrapper=tracing["daemon"])
        daemon.run_daemon()
        daemon.record_answers(answers)
        for stage in (floor, traced_floor):
            for port in range(PRINTERS):
                stage.plug_in(port)
        floor.run([program("bench_floor"), answers])
        traced_floor.run([program("bench_floor"), answers], tracing["floor"])
        time.sleep(_SETTLE)

        begin = time.time()
        before = {"daemon": _threads(daemon), "floor": _threads(floor)}
        time.sleep(seconds)
        after = {"daemon": _threads(daemon), "floor": _threads(floor)}
        end = time.time()

        scale = 60 / (end - begin)
        return {
            name: {
                "milliseconds": (after[name][0] - before[name][0]) * scale,
                "wakeups": (after[name][1] - before[name][1]) * scale,
                "calls": {
                    call: count * scale
                    for call, count in _calls(traces[name], begin, end).items()
                },
            }
            for name in ("daemon", "floor")
        }
