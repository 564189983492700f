"""Nanoseconds per operation, by Google Benchmark: measuring, and the kept table."""

import json
import pathlib
import subprocess
import tempfile

from bench import growth

TABLE = pathlib.Path(__file__).with_name("times.tsv")

_REPETITIONS = 5
_SECONDS = 0.02


def measure(program):
    """Runs bench_time; returns, by case, its nanoseconds and those of its floor: medians of
    repetitions that alternate with those of all other cases."""
    with tempfile.TemporaryDirectory() as directory:
        result = pathlib.Path(directory) / "result.json"
        subprocess.run(
            [
                program,
                f"--benchmark_out={result}",
                "--benchmark_out_format=json",
                f"--benchmark_min_time={_SECONDS}",
                f"--benchmark_repetitions={_REPETITIONS}",
                "--benchmark_enable_random_interleaving=true",
                "--benchmark_report_aggregates_only=true",
            ],
            check=True,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
        )
        runs = json.loads(result.read_text())["benchmarks"]
    medians = {
        run["run_name"]: run["cpu_time"] for run in runs if run["aggregate_name"] == "median"
    }
    return {
        name: (time, medians[f"{name}/floor"])
        for name, time in medians.items()
        if not name.endswith("/floor")
    }


def write_table(times):
    """Writes the nanoseconds by case, and those of the floor, except for cases that differ
    from others in size only."""
    lines = ["# operation\tns\tns of the floor"]
    for name, (time, floor) in times.items():
        columns = [name, f"{time:.0f}", *([] if growth.is_growth(name) else [f"{floor:.0f}"])]
        lines.append("\t".join(columns))
    TABLE.write_text("\n".join(lines) + "\n")
