"""Where the time of an answer goes: the steps between the calls that the behaviour prescribes."""

import contextlib
import pathlib
import statistics
import struct
import tempfile

from bench.latency import endtoend
from bench.stage import Stage, program
from lab.packaged import as_packaged

TARGETS = ("daemon", "floor")
# How the questions come, and what the asker calls that.
MODES = {"cold": "latency", "warm": "again"}

_HEADER = struct.Struct("=q")
_NOTE = struct.Struct("=qqii")
_RECEIVE, _WRITE, _SOCKET, _CLOSE, _CREATE, _SEND = range(6)

# What the answering thread does up to its first packet.
_ANSWER = (_RECEIVE, _WRITE, _SOCKET, _CLOSE, _CREATE)
STEPS = (
    "tests, log line composed",
    "log line written",
    "to the address request",
    "address requested",
    "composed, copied",
    "thread created",
    "thread begins to send",
    "first packet sent",
    "all of it",
)


def _notes(path):
    data = path.read_bytes()
    (count,) = _HEADER.unpack_from(data)
    return [_NOTE.unpack_from(data, _HEADER.size + i * _NOTE.size) for i in range(count)]


def _answers(notes):
    """For each answer the nanoseconds of its steps."""
    threads = {}
    for begun, ended, call, thread in sorted(notes):
        threads.setdefault(thread, []).append((begun, ended, call))
    senders = sorted(each[0][:2] for each in threads.values() if each[0][2] == _SEND)
    for calls in threads.values():
        if calls[0][2] == _SEND:
            continue
        for i in range(len(calls) - len(_ANSWER)):
            part = calls[i : i + len(_ANSWER)]
            if tuple(call for _, _, call in part) != _ANSWER:
                continue
            (_, received, _), write, opened, closed, create = part
            sending = next((each for each in senders if each[0] > create[0]), None)
            if sending is None:
                continue
            yield (
                write[0] - received,
                write[1] - write[0],
                opened[0] - write[1],
                closed[1] - opened[0],
                create[0] - closed[1],
                create[1] - create[0],
                sending[0] - create[0],
                sending[1] - sending[0],
                sending[1] - received,
            )


def measure(count, rounds):
    """Medians in nanoseconds by target and mode and then by step: of `count` answers to the
    host-name question a round, asked 10 ms apart, when the caches have gone cold, and one right
    after the other, when they are warm. The daemon runs as packaged."""
    with contextlib.ExitStack() as stack:
        directory = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory()))
        daemon, floor = stages = [stack.enter_context(Stage()) for _ in TARGETS]
        paths = [directory / name for name in TARGETS]
        noting = [
            {"LD_PRELOAD": str(program("libbench_steps.so")), "BENCH_STEPS": str(path)}
            for path in paths
        ]
        how = as_packaged()
        answers = directory / "answers"
        daemon.run_daemon(wrapper=how["wrapper"], environment={**how["environment"], **noting[0]})
        daemon.record_answers(answers)
        floor.run([program("bench_floor"), answers], environment=noting[1])
        for stage in stages:
            stage.stop_capture()
        question = daemon.questions()[0]
        found = {}
        for _ in range(rounds):
            for mode, asked in MODES.items():
                before = [len(_notes(path)) for path in paths]
                endtoend.ask(asked, count, [question], stages)
                for name, path, first in zip(TARGETS, paths, before):
                    found.setdefault((name, mode), []).extend(_answers(_notes(path)[first:]))
        return {
            key: [statistics.median(step) for step in zip(*every)] for key, every in found.items()
        }
