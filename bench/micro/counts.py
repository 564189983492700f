"""Instructions per operation, counted by callgrind: measuring, the kept table, the comparison.

As a command it is the check: it fails if an operation takes over 10 % more instructions than the
table says.
"""

import argparse
import os
import pathlib
import re
import subprocess
import sys
import tempfile

TABLE = pathlib.Path(__file__).with_name("instructions.tsv")
TOLERANCE = 1.10

# The C library chooses its string functions by processor. Restricted to the plainest ones of the
# architecture, counts are the same on different machines.
_PLAIN_PROCESSOR = "glibc.cpu.hwcaps=-AVX,-AVX2,-AVX512F,-AVX512VL,-ERMS,-FSRM,-BMI1,-BMI2,-LZCNT"


def measure(program):
    """Runs bench_count; returns instructions by case, and the heap bytes of a service."""
    with tempfile.TemporaryDirectory() as directory:
        tool = ["valgrind", "--tool=callgrind", "--instr-atstart=no"]
        facts = _run([*tool, f"--callgrind-out-file={directory}/out", program])
        counts = {}
        for path in sorted(pathlib.Path(directory).glob("out.*"), key=_number):
            text = path.read_text()
            name = re.search(r"^desc: Trigger: Client Request: (.*)$", text, re.MULTILINE)
            total = re.search(r"^(?:totals|summary): (\d+)", text, re.MULTILINE)
            if name:
                counts[name[1]] = round(int(total[1]) / facts["runs"])
    # Valgrind replaces the heap.
    return counts, _run([program])["heap bytes per service"]


def _run(command):
    environment = {"PATH": os.environ["PATH"], "GLIBC_TUNABLES": _PLAIN_PROCESSOR}
    done = subprocess.run(command, env=environment, stderr=subprocess.PIPE, text=True)
    if done.returncode != 0:
        raise RuntimeError(f"{command}: {done.stderr}")
    facts = re.findall(r"^([a-z ]+)\t(\d+)$", done.stderr, re.MULTILINE)
    return {name: int(value) for name, value in facts}


def _number(path):
    return int(path.suffix.removeprefix("."))


def read_table():
    """The kept table: instructions by case."""
    lines = TABLE.read_text().splitlines()[1:]
    return {name: int(count) for name, count in (line.split("\t") for line in lines)}


def write_table(counted_on, counts):
    lines = [f"# {counted_on}", *(f"{name}\t{count}" for name, count in counts.items())]
    TABLE.write_text("\n".join(lines) + "\n")


def problems(kept, counts):
    """What is wrong with `counts`, a line each."""
    found = [f"{name}: is in only one of table and program" for name in kept.keys() ^ counts.keys()]
    for name in kept.keys() & counts.keys():
        if counts[name] > kept[name] * TOLERANCE:
            found.append(f"{name}: {counts[name]} instructions instead of {kept[name]}")
    return sorted(found)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("program", help="the built bench_count")
    counts, _ = measure(parser.parse_args().program)
    found = problems(read_table(), counts)
    print("\n".join(found) or f"{len(counts)} operations are within 10 % of the table")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
