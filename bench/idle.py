"""What the daemon costs at idle, compared with the least that its polling needs."""

import contextlib
import pathlib
import re
import tempfile
import time

from bench.stage import PRINTERS, Stage, program
from lab.packaged import as_packaged

TARGETS = ("daemon", "floor")

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
    """System calls that began between two times, by name, from a trace of strace."""
    calls = {}
    for line in trace.read_text().splitlines():
        entry = re.match(r"\d+ +(\d+\.\d+) ([a-z0-9_]+)\(", line)
        if entry and begin <= float(entry[1]) < end:
            calls[entry[2]] = calls.get(entry[2], 0) + 1
    return calls


def measure(seconds, parts):
    """Figures per minute, by target: wake-ups, system calls by name, and the milliseconds of
    processor time of each of so many parts of the time. The calls are those of runs of their own,
    which strace slows down. The daemon runs as packaged."""
    with contextlib.ExitStack() as stack:
        directory = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory()))
        traces = {name: directory / f"{name}.trace" for name in TARGETS}
        tracing = {
            name: ["strace", "-D", "-f", "-ttt", "-o", path] for name, path in traces.items()
        }
        daemon, floor, traced_daemon, traced_floor = (
            stack.enter_context(Stage()) for _ in range(4)
        )
        answers = directory / "answers"
        how = as_packaged()
        traced_daemon.run_daemon(
            wrapper=[*tracing["daemon"], *how["wrapper"]], environment=how["environment"]
        )
        daemon.run_daemon(**how)
        daemon.record_answers(answers)
        for stage in (floor, traced_floor):
            for port in range(PRINTERS):
                stage.plug_in(port)
        floor.run([program("bench_floor"), answers])
        traced_floor.run([program("bench_floor"), answers], tracing["floor"])
        time.sleep(_SETTLE)

        stages = {"daemon": daemon, "floor": floor}
        begin = time.time()
        seen = [{name: _threads(stage) for name, stage in stages.items()}]
        for _ in range(parts):
            time.sleep(seconds / parts)
            seen.append({name: _threads(stage) for name, stage in stages.items()})
        end = time.time()

        scale = 60 / (end - begin)
        return {
            name: {
                "milliseconds": [
                    (after[name][0] - before[name][0]) * scale * parts
                    for before, after in zip(seen, seen[1:])
                ],
                "wakeups": (seen[-1][name][1] - seen[0][name][1]) * scale,
                "calls": {
                    call: count * scale
                    for call, count in _calls(traces[name], begin, end).items()
                },
            }
            for name in TARGETS
        }
