"""End to end: the daemon and the floor program, side by side in the same seconds."""

import contextlib
import pathlib
import subprocess
import tempfile

from bench.stage import TRANSMISSIONS, Stage, program

TARGETS = ("daemon", "floor")


@contextlib.contextmanager
def both():
    """The two stages, running: the daemon's with ten printers, the floor's with its answers."""
    with Stage() as daemon, Stage() as floor, tempfile.TemporaryDirectory() as directory:
        answers = pathlib.Path(directory) / "answers"
        daemon.run_daemon()
        daemon.record_answers(answers)
        floor.run([program("bench_floor"), answers])
        for stage in (daemon, floor):
            stage.stop_capture()
        yield daemon, floor


def _ask(mode, amount, question, stages):
    targets = [f"{network}:{log}:{stage.lab.host.address}" for stage in stages
               for network, log in [stage.descriptors]]
    done = subprocess.run(
        [program("bench_asker"), mode, str(amount), question.hex(), *targets],
        stdout=subprocess.PIPE,
        text=True,
        check=True,
        pass_fds=[descriptor for stage in stages for descriptor in stage.descriptors],
    )
    return [line.split("\t") for line in done.stdout.splitlines()]


def latencies(stages, question, count):
    """Microseconds from the question to the first answer, by target; late ones are infinite."""
    result = {name: [] for name in TARGETS}
    for number, time in _ask("latency", count, question, stages):
        result[TARGETS[int(number)]].append(
            float("inf") if time == "late" else int(time) / 1000
        )
    return result


def rates(stages, question, seconds, rounds):
    """What each target sustained in each round: answers per second, transmissions per answer and
    questions without an answer. The targets take turns, and turns at being first."""
    result = {name: [] for name in TARGETS}
    for turn in range(rounds):
        order = (0, 1) if turn % 2 == 0 else (1, 0)
        measured = _ask("rate", seconds, question, [stages[number] for number in order])
        for number, (_, rate, transmissions, lost) in zip(order, measured):
            if abs(float(transmissions) - TRANSMISSIONS) > 0.1:
                raise RuntimeError(f"{TARGETS[number]} sent {transmissions} packets an answer")
            result[TARGETS[number]].append((int(rate), float(transmissions), int(lost)))
    return result


def percentile(values, share):
    return sorted(values)[min(len(values) - 1, int(len(values) * share))]
