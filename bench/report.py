"""Measures and writes the figures and pictures of docs/performance.md. Started by ./bench/run."""

import datetime
import os
import pathlib
import platform
import re
import statistics
import sys

from bench import growth, idle, pictures
from bench.latency import endtoend
from bench.micro import counts, times
from bench.stage import PRINTERS, program

PAGE = counts.PAGE
PICTURES = PAGE.parent / "performance"

LATENCY_QUESTIONS = 2000
RATE_SECONDS = 1
RATE_ROUNDS = 21
IDLE_SECONDS = 60

LATENCY_LIMITS = {"host-name question": 1.10, "browse question, 20 services": 1.15}
RATE_LIMIT = 0.9


def write_section(name, text):
    """Replaces what stands between the page's two marks of that name."""
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

    write_section("instructions", counts.page_table(by_case))
    rows = [
        [name, f"{time:.0f}", f"{floor:.0f}"]
        for name, (time, floor) in nanoseconds.items()
        if not name.startswith("growth")
    ]
    write_section("times", table(["operation", "ns", "floor, ns"], rows))
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
                  "heap, its TXT text not counted, which belongs to whoever registered it.")
    pictures.growth_lines(PICTURES / "growth.svg", by_case, daemon)


def _microseconds(value):
    return "over 3000" if value == float("inf") else f"{value:.0f}"


def measure_latency():
    with endtoend.both() as stages:
        latencies = {
            title: endtoend.latencies(stages, question, LATENCY_QUESTIONS)
            for title, question in zip(LATENCY_LIMITS, stages[0].questions())
        }
        rounds = endtoend.rates(stages, stages[0].questions()[0], RATE_SECONDS, RATE_ROUNDS)

    rows = []
    for title, limit in LATENCY_LIMITS.items():
        daemon, floor = (latencies[title][name] for name in endtoend.TARGETS)
        for what, of in (("median", statistics.median),
                         ("99th percentile", lambda values: endtoend.percentile(values, 0.99))):
            ratio = f"{of(daemon) / of(floor):.2f}" if of(floor) < float("inf") else ""
            rows.append([f"{title}, {what}, µs", _microseconds(of(daemon)),
                         _microseconds(of(floor)), ratio,
                         f"at most {limit:.2f}" if what == "median" else ""])
    rates = {name: [rate for rate, _, _ in values] for name, values in rounds.items()}
    daemon, floor = (statistics.median(rates[name]) for name in endtoend.TARGETS)
    rows.append(["answered questions a second", f"{daemon:.0f}", f"{floor:.0f}",
                 f"{daemon / floor:.2f}", f"at least {RATE_LIMIT:.2f}"])
    unanswered = {name: sum(lost for _, _, lost in values) for name, values in rounds.items()}
    late = {
        name: sum(value == float("inf") for title in latencies for value in latencies[title][name])
        for name in endtoend.TARGETS
    }
    rows.append(["questions answered later than 3 ms, of "
                 f"{LATENCY_QUESTIONS * len(latencies)}", late["daemon"], late["floor"], "", ""])
    rows.append(["unanswered at the sustained rate", unanswered["daemon"], unanswered["floor"],
                 "", ""])
    write_section("latency", table(["", "daemon", "floor", "ratio", "to reach"], rows))
    pictures.latency(PICTURES / "latency.svg", latencies, rates)


def measure_idle():
    figures = idle.measure(IDLE_SECONDS)
    calls = sorted({call for one in figures.values() for call in one["calls"]})
    rows = [
        [f"`{call}`", *(f"{one['calls'].get(call, 0):.0f}" for one in figures.values())]
        for call in calls
    ]
    rows.append(["system calls", *(f"{sum(one['calls'].values()):.0f}"
                                   for one in figures.values())])
    rows.append(["wake-ups", *(f"{one['wakeups']:.0f}" for one in figures.values())])
    rows.append(["ms of processor time", *(f"{one['milliseconds']:.1f}"
                                           for one in figures.values())])
    write_section("idle", table([f"a minute, {PRINTERS} printers, no traffic", *figures], rows))
    pictures.idle(PICTURES / "idle.svg", figures)


PARTS = {"micro": measure_micro, "latency": measure_latency, "idle": measure_idle}


def main():
    chosen = sys.argv[1:] or list(PARTS)
    PICTURES.mkdir(parents=True, exist_ok=True)
    for part in chosen:
        print(f"Measuring {part}", flush=True)
        PARTS[part]()
    write_section("machine", machine())
    print(f"The figures are in {PAGE.relative_to(PAGE.parents[1])}")


if __name__ == "__main__":
    main()
