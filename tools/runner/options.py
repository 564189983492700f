"""The command line of ./test: what is asked for, and a refusal of what makes no sense."""

import argparse
import os
import pathlib
import re
import typing

PYTHON = "/usr/bin/python3"
GROUPS = (
    "unit",
    "simulation",
    "system",
    "faults",
    "hostile",
    "standard_link",
    "fuzz",
    "package",
    "stock_kernel",
    "builds",
    "bench",
    "runner",
    "style",
)
# These are about the release build or about the sources.
RELEASE_GROUPS = ("package", "stock_kernel", "builds", "bench", "runner", "style")
# No thread takes part in them.
NOT_OF_TSAN = ("simulation", "fuzz")
PRESETS = ("release", "debug", "tsan")
# Under the sanitizers these notice what they notice in the build release, and more; to compile them
# twice takes minutes.
SANITIZED_GROUPS = ("unit", "fuzz")
# The machines' names as their module has them; to import it takes packages that are not there yet.
_MACHINES = pathlib.Path(__file__).resolve().parent.parent.parent / "lab/vm/kinds.py"
KINDS = re.findall(r'^    "(.+)": Kind\(', _MACHINES.read_text(), re.MULTILINE)
# What ctest runs; pytest runs the others.
CTEST_GROUPS = ("unit", "simulation", "fuzz", "bench")
COVERAGE = "coverage"
COVERAGE_GROUPS = ("unit", "simulation", "system", "faults", "standard_link")
# System tests mostly wait for the daemon's own sleeps; each worker costs half a second to start.
JOBS = 8 * (os.cpu_count() or 1)


class LongRun(typing.NamedTuple):
    """A run of its own kind: the packages that it needs, and what it starts, "{}" standing for its
    number if it takes one."""

    packages: str = ""
    command: str = ""
    is_in_lab: bool = False


_PYTEST = f"{PYTHON} -m pytest -q -s -p no:cacheprovider"
_HOSTILE = f"PYTEST_DISABLE_PLUGIN_AUTOLOAD=1 {_PYTEST} tests/hostile"
LONG_RUNS = {
    COVERAGE: LongRun("build test coverage"),
    "mutants": LongRun("build test mutants", f"{PYTHON} tools/mutate --mutants {{}}"),
    "soak": LongRun(
        "build test", f"env BONJOUR_SOAK_SECONDS={{}} {_HOSTILE}/test_soak.py", is_in_lab=True
    ),
    "stops": LongRun(
        "build test", f"env BONJOUR_STOPS={{}} {_HOSTILE}/test_many_stops.py", is_in_lab=True
    ),
    "fuzz": LongRun("build fuzz", "fuzz/run {}"),
    "sweep": LongRun("build test", f"{PYTHON} tools/sweep", is_in_lab=True),
    "memory": LongRun("build test memory", "tools/memory"),
    "targets": LongRun(command="tools/targets"),
    "router": LongRun(command="tests/router/run"),
}


def groups_of(preset, groups):
    """Those of these groups that have tests of the preset."""
    without = {"release": (), "tsan": RELEASE_GROUPS + NOT_OF_TSAN}.get(preset, RELEASE_GROUPS)
    return [group for group in groups if group not in without]


def plan(options):
    """The groups of each preset that are meant."""
    groups = options.groups or GROUPS
    if options.presets:
        return {preset: groups_of(preset, groups) for preset in dict.fromkeys(options.presets)}
    sanitized = [group for group in groups if group in SANITIZED_GROUPS]
    once = {"release": [group for group in groups if group not in sanitized], "debug": sanitized}
    if not (options.groups or options.name is not None or options.list):
        once |= {preset: groups_of(preset, groups) for preset in PRESETS[1:]}
    return {preset: some for preset, some in once.items() if some}


def folder(group):
    """Where the tests of a group of pytest's are."""
    return "stock-kernel/tests" if group == "stock_kernel" else f"tests/{group}"


def targets(groups):
    """What has to be built for the tests of these groups."""
    return sorted({f"{group if group in CTEST_GROUPS else 'lab'}_tests" for group in groups})


def _pattern(text):
    try:
        re.compile(text)
    except re.error as error:
        raise argparse.ArgumentTypeError(f"{text!r} is no regular expression: {error}") from None
    return text


def _number(text):
    if not re.fullmatch("[1-9][0-9]{0,8}", text):
        raise argparse.ArgumentTypeError(f"takes a number from 1, not {text!r}")
    return int(text)


def _parser():
    usage = "./test [GROUP...] [OPTION...]; --help describes the arguments"
    parser = argparse.ArgumentParser("./test", usage, add_help=False, allow_abbrev=False)
    parser.add_argument("groups", nargs="*", metavar="GROUP")
    parser.add_argument("--name", type=_pattern)
    parser.add_argument("--preset", action="append", default=[], dest="presets", choices=PRESETS)
    parser.add_argument("--jobs", type=_number)
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--kind", action="append", default=[], dest="kinds", choices=KINDS)
    one = parser.add_mutually_exclusive_group()
    for name, run in LONG_RUNS.items():
        how = {"type": _number} if "{}" in run.command else {"action": "store_true"}
        one.add_argument(f"--{name}", **how)
    return parser


def parse(words):
    """The options, checked and completed; ends the process with status 2 if they make no sense.

    `long_run` is the name of the long run or None, and `count` its number, if it takes one.
    """
    parser = _parser()
    options = parser.parse_args(words)
    unknown = set(options.groups) - set(GROUPS)
    if unknown:
        parser.error(f"there is no group {unknown.pop()!r}; there are {', '.join(GROUPS)}")
    options.long_run = next((name for name in LONG_RUNS if getattr(options, name)), None)
    options.count = options.long_run and getattr(options, options.long_run)
    words = {"--name": "name", "--preset": "presets", "--list": "list", "GROUP": "groups"}
    words |= {} if options.long_run == COVERAGE else {"--jobs": "jobs"}
    for word, name in words.items():
        if options.long_run and getattr(options, name):
            parser.error(f"--{options.long_run} and {word} do not go together")
    if options.kinds and options.long_run != "router":
        parser.error("--kind goes with --router")
    for preset in options.presets:
        if options.groups and not groups_of(preset, options.groups):
            parser.error(f"the group {options.groups[0]} is none of the preset {preset}")
    options.jobs = options.jobs or JOBS
    return options
