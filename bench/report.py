"""Measures, and writes the figures and pictures of docs/performance.md. Started by ./bench/run."""

import dataclasses
import datetime
import itertools
import os
import pathlib
import platform
import re
import statistics
import sys
import typing

import numpy

from bench import growth, idle, memory, pictures, ratios
from bench.latency import endtoend, steps
from bench.micro import counts, times
from bench.stage import PRINTERS, program

PAGE = pathlib.Path(__file__).parents[1] / "docs/performance.md"
PICTURES = PAGE.parent / "performance"

# Of a round.
LATENCY_QUESTIONS = 250
RATE_SECONDS = 1
STEP_QUESTIONS = 150
STEP_ROUNDS = 10
MEMORY_RUNS = 3
IDLE_SECONDS = 120
IDLE_PARTS = 24

# As packaged, against the floor program; memory in KiB. docs/performance.md gives the reasons.
MEDIAN_LIMITS = (1.08, 1.12)
LATE_LIMIT = 1.10
CPU_LIMIT = 1.10
RATE_LIMIT = 0.90
IDLE_LIMIT = 1.5
BURST_MEMORY_LIMIT = 600

missed = []


def verdict(what, is_met):
    if not is_met:
        missed.append(what)
    return "met" if is_met else "MISSED"


def write_section(name, text):
    """Replaces the text between the page's two marks of that name."""
    begin, end = f"<!-- {name}: written by ./bench/run -->", f"<!-- end of {name} -->"
    head, _, rest = PAGE.read_text().partition(begin)
    _, found, tail = rest.partition(end)
    if not found:
        raise RuntimeError(f"{PAGE} has no section {name}")
    PAGE.write_text(f"{head}{begin}\n{text.strip()}\n{end}{tail}")


def table(head, rows):
    lines = [head, ["---", *["---:"] * (len(head) - 1)], *rows]
    return "\n".join("| " + " | ".join(str(cell) for cell in row) + " |" for row in lines)


def machine():
    info = pathlib.Path("/proc/cpuinfo").read_text()
    cpu = re.search(r"^model name\s*: (.*)$", info, re.MULTILINE)
    compiler = program("counted_on.txt").read_text().strip()
    return (
        f"{datetime.date.today()}: {os.cpu_count()} processors {cpu[1] if cpu else ''}, "
        f"Linux {platform.release()}, {' '.join(platform.libc_ver())}, {compiler}, preset "
        f"`release`. Load average of the five minutes before the end: {os.getloadavg()[1]:.1f}."
    )


def measure_micro():
    by_case, heap = counts.measure(program("bench_count"))
    counts.write_table(program("counted_on.txt").read_text().strip(), by_case)
    measured = times.measure(program("bench_time"))
    nanoseconds = {name: measured[name] for name in by_case}

    times.write_table(nanoseconds)
    pictures.micro(PICTURES / "micro.svg", by_case, nanoseconds)

    daemon = {name: time for name, (time, _) in nanoseconds.items()}
    rows = []
    for group, what in ((growth.SERVICES, "each service"), (growth.QUESTIONS, "each question")):
        instructions, _, straight = growth.line(group, by_case)
        time, _, time_straight = growth.line(group, daemon)
        rows.append([what, f"{instructions:.0f}", f"{straight:.5f}", f"{time:.1f}",
                     f"{time_straight:.4f}"])
    head = ["", "instructions", "correlation", "ns", "correlation"]
    write_section("growth", table(head, rows) + f"\n\nA registered service takes {heap} bytes of "
                  "heap, its TXT text not counted, which belongs to the caller.")
    pictures.growth_lines(PICTURES / "growth.svg", by_case, daemon)


def _microseconds(value):
    return "over 3000" if value == float("inf") else f"{value:.0f}"


def _percentile(share):
    return lambda values: float(numpy.percentile(values, 100 * share, method="lower"))


MEDIAN, LATE = _percentile(0.5), _percentile(0.99)


def gathered(rounds, name):
    """A target's values of all rounds."""
    return [value for each in rounds for value in each[name]]


@dataclasses.dataclass(frozen=True)
class Comparison:
    """A figure of the daemon that is compared with the floor program's."""

    title: str
    of: str  # the measured values of a round: "values" or "processor"
    statistic: typing.Callable
    limit: float
    show: typing.Callable = _microseconds
    is_least: bool = False

    def _rounds(self, rounds):
        return [getattr(each, self.of) for each in rounds]

    def ratio(self, rounds, upper="packaged"):
        return ratios.ratio(self._rounds(rounds), upper, "floor", self.statistic)

    def row(self, rounds):
        packaged, plain = self.ratio(rounds), self.ratio(rounds, "plain")
        measured = [
            self.show(self.statistic(gathered(self._rounds(rounds), name)))
            for name in endtoend.TARGETS
        ]
        keep = packaged.value >= self.limit if self.is_least else packaged.value <= self.limit
        limit = f"at {'least' if self.is_least else 'most'} {self.limit:.2f}"
        return [self.title, *measured, packaged, plain, limit, verdict(self.title, keep)]


def compare(one_round, comparisons):
    """The table's rows, from as many rounds as the comparisons need."""
    rounds = ratios.measure(
        one_round, lambda rounds: [(each.ratio(rounds), each.limit) for each in comparisons]
    )
    return [each.row(rounds) for each in comparisons], rounds


def measure_latency():
    titles = ("host-name question", "browse question, 20 services")
    rows, measured = [], {}
    with endtoend.running() as stages:
        for title, question, limit in zip(titles, stages["plain"].questions(), MEDIAN_LIMITS):
            found, rounds = compare(
                lambda: endtoend.latencies(stages, question, LATENCY_QUESTIONS),
                [
                    Comparison(f"{title}, median, µs", "values", MEDIAN, limit),
                    Comparison(f"{title}, 99th percentile, µs", "values", LATE, LATE_LIMIT),
                    Comparison(
                        f"{title}, processor time, µs", "processor", statistics.fmean, CPU_LIMIT
                    ),
                ],
            )
            rows += [[*row, len(rounds)] for row in found]
            values = [each.values for each in rounds]
            measured[title] = {name: gathered(values, name) for name in endtoend.TARGETS}
    with endtoend.running(MEMORY_LIMIT=None) as stages:
        question = stages["plain"].questions()[0]
        turn = itertools.count()
        found, rounds = compare(
            lambda: endtoend.rates(stages, question, RATE_SECONDS, next(turn)),
            [
                Comparison(
                    "host-name questions a second¹", "values", MEDIAN, RATE_LIMIT, is_least=True
                ),
                Comparison(
                    "processor time at that rate¹, µs", "processor", statistics.fmean, CPU_LIMIT
                ),
            ],
        )
        rows += [[*row, len(rounds)] for row in found]
        values = [each.values for each in rounds]
        rates = {name: gathered(values, name) for name in endtoend.TARGETS}
    head = ["", "packaged", "plain", "floor", "packaged ÷ floor", "plain ÷ floor", "to reach", "",
            "rounds"]
    write_section("latency", table(head, rows))
    pictures.latency(PICTURES / "latency.svg", measured, rates)


def measure_steps():
    by_target = steps.measure(STEP_QUESTIONS, STEP_ROUNDS)
    columns = [(target, mode) for mode in steps.MODES for target in steps.TARGETS]
    rows = [
        [step, *(f"{by_target[column][number] / 1000:.1f}" for column in columns)]
        for number, step in enumerate(steps.STEPS)
    ]
    head = ["µs, medians", *(f"{target}, {mode}" for target, mode in columns)]
    write_section("steps", table(head, rows))


def measure_memory():
    found = [memory.measure() for _ in range(MEMORY_RUNS)]
    is_met = verdict("private memory after a burst", max(found) <= BURST_MEMORY_LIMIT)
    write_section("memory", f"{min(found)} to {max(found)} KiB in {MEMORY_RUNS} runs; "
                  f"at most {BURST_MEMORY_LIMIT}: {is_met}.")


def measure_idle():
    figures = idle.measure(IDLE_SECONDS, IDLE_PARTS)
    calls = sorted({call for one in figures.values() for call in one["calls"]})
    rows = [
        [f"`{call}`", *(f"{one['calls'].get(call, 0):.0f}" for one in figures.values())]
        for call in calls
    ]
    rows.append(
        ["system calls", *(f"{sum(one['calls'].values()):.0f}" for one in figures.values())]
    )
    rows.append(["wake-ups", *(f"{one['wakeups']:.0f}" for one in figures.values())])
    rows.append(
        [
            "ms of processor time",
            *(f"{statistics.fmean(one['milliseconds']):.1f}" for one in figures.values()),
        ]
    )
    parts = [
        {name: [one["milliseconds"][part]] for name, one in figures.items()}
        for part in range(IDLE_PARTS)
    ]
    found = ratios.ratio(parts, "daemon", "floor", statistics.fmean)
    is_met = verdict("processor time at idle", found.value <= IDLE_LIMIT)
    write_section(
        "idle",
        table([f"a minute, {PRINTERS} printers, no traffic", *figures], rows)
        + f"\n\nProcessor time, daemon ÷ floor: {found}; at most {IDLE_LIMIT:.1f}: {is_met}.",
    )
    pictures.idle(PICTURES / "idle.svg", figures)


PARTS = {
    "micro": measure_micro,
    "latency": measure_latency,
    "steps": measure_steps,
    "memory": measure_memory,
    "idle": measure_idle,
}


def main():
    chosen = sys.argv[1:] or list(PARTS)
    PICTURES.mkdir(parents=True, exist_ok=True)
    for part in chosen:
        print(f"Measuring {part}", flush=True)
        PARTS[part]()
    write_section("machine", machine())
    print(f"The figures are in {PAGE.relative_to(PAGE.parents[1])}")
    for what in missed:
        print(f"MISSED: {what}")
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
