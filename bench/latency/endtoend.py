"""End to end: the daemon and the floor program, side by side in the same seconds."""

import contextlib
import dataclasses
import pathlib
import subprocess
import tempfile
import time

from bench.stage import TRANSMISSIONS, Stage, program
from lab.packaged import as_packaged

# The daemon as it is packaged, the daemon without any setting, and the floor program.
TARGETS = ("packaged", "plain", "floor")


@dataclasses.dataclass(frozen=True)
class Round:
    """By target: the measured values, and the microseconds of processor time an answered question
    took."""

    values: dict
    processor: dict


@contextlib.contextmanager
def running(**changes):
    """The three stages by target, running: the daemons with ten printers, the floor program with
    their answers. `changes` are those of the packaged settings."""
    with contextlib.ExitStack() as stack:
        stages = {name: stack.enter_context(Stage()) for name in TARGETS}
        directory = stack.enter_context(tempfile.TemporaryDirectory())
        answers = pathlib.Path(directory) / "answers"
        stages["packaged"].run_daemon(**as_packaged(**changes))
        stages["plain"].run_daemon()
        stages["plain"].record_answers(answers)
        stages["floor"].run([program("bench_floor"), answers])
        for stage in stages.values():
            stage.stop_capture()
        yield stages


def ask(mode, amount, questions, stages):
    """What the asker prints: a list of words for each line. `questions` are asked in turns."""
    targets = [
        f"{network}:{log}:{stage.lab.host.address}:{stage.process.pid}"
        for stage in stages
        for network, log in [stage.descriptors]
    ]
    asked = ",".join(question.hex() for question in questions)
    done = subprocess.run(
        [program("bench_asker"), mode, str(amount), asked, *targets],
        stdout=subprocess.PIPE,
        text=True,
        check=True,
        pass_fds=[descriptor for stage in stages for descriptor in stage.descriptors],
    )
    return [line.split("\t") for line in done.stdout.splitlines()]


def _processor_time(stages):
    """Microseconds that each process has used so far, its ended threads included."""
    # The clock of another process, as clock_getcpuclockid(3) computes it from the process id.
    return {
        name: time.clock_gettime_ns(~stage.process.pid << 3 | 2) / 1000
        for name, stage in stages.items()
    }


def _used(stages, before, answered):
    after = _processor_time(stages)
    return {name: [(after[name] - before[name]) / answered[name]] for name in stages}


def latencies(stages, question, count):
    """A round of questions 10 ms apart: microseconds from each question to its first answer,
    infinite if that is late."""
    names = list(stages)
    values, processor = {name: [] for name in names}, {}
    for first, *rest in ask("latency", count, [question], stages.values()):
        if first == "processor":
            processor[names[int(rest[0])]] = [int(rest[1]) / 1000]
        else:
            late = rest[0] == "late"
            values[names[int(first)]].append(float("inf") if late else int(rest[0]) / 1000)
    return Round(values, processor)


def rates(stages, question, seconds, first):
    """A round of as many questions as are answered, one target after the other, starting with
    number `first`: answered questions a second."""
    names = list(stages)
    names = names[first % len(names) :] + names[: first % len(names)]
    before = _processor_time(stages)
    values, answered = {}, {}
    turns = [stages[name] for name in names]
    for name, line in zip(names, ask("rate", seconds, [question], turns)):
        _, rate, answers, transmissions, lost = line
        if abs(float(transmissions) - TRANSMISSIONS) > 0.1 or int(lost) > 0:
            raise RuntimeError(f"{name}: {transmissions} packets an answer, {lost} questions lost")
        values[name] = [int(rate)]
        answered[name] = int(answers)
    return Round(values, _used(stages, before, answered))
