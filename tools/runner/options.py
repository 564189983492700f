"""The command line of ./test: what is asked for, and a refusal of what makes no sense."""

import argparse
import os
import re
import sys

GROUPS = (
    "unit",
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
# No thread takes part in what is fuzzed.
NOT_OF_TSAN = ("fuzz",)
PRESETS = ("release", "debug", "tsan", "clang")
# What ctest runs; pytest runs the others.
CTEST_GROUPS = ("unit", "fuzz", "bench")
COVERAGE = "coverage"
COVERAGE_GROUPS = ("unit", "system", "faults", "standard_link")
# Runs of their own kind, each with what its argument counts and the most of it.
WEEK = 7 * 24 * 60 * 60
LONG_RUNS = {
    "coverage": None,
    "mutants": ("mutants", 1000000),
    "soak": ("seconds", WEEK),
    "stops": ("stops", 100000),
    "fuzz": ("seconds", WEEK),
    "sweep": None,
    "memory": None,
    "targets": None,
    "router": None,
}
MOST_JOBS = 1000
# System tests mostly wait for the daemon's own sleeps; each worker costs half a second to start.
JOBS = 6 * (os.cpu_count() or 1)


def groups_of(preset, groups):
    """Those of these groups that have tests of the preset."""
    without = {"release": (), "tsan": RELEASE_GROUPS + NOT_OF_TSAN}.get(preset, RELEASE_GROUPS)
    return [group for group in groups if group not in without]


def folder(group):
    """Where the tests of a group of pytest's are."""
    return "stock-kernel/tests" if group == "stock_kernel" else f"tests/{group}"


def targets(groups):
    """What has to be built for the tests of these groups."""
    return sorted({f"{group if group in CTEST_GROUPS else 'lab'}_tests" for group in groups})


class _Parser(argparse.ArgumentParser):
    def error(self, message):
        print(f"./test: {message}\n./test --help describes the arguments", file=sys.stderr)
        sys.exit(2)


def _parser():
    parser = _Parser(prog="./test", add_help=False, allow_abbrev=False)
    parser.add_argument("groups", nargs="*", metavar="GROUP")
    parser.add_argument("--name", metavar="PATTERN")
    parser.add_argument("--preset", action="append", default=[], dest="presets")
    parser.add_argument("--jobs", metavar="N")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--kind", action="append", default=[], dest="kinds")
    for name, counted in LONG_RUNS.items():
        if counted:
            parser.add_argument(f"--{name}", metavar="N")
        else:
            parser.add_argument(f"--{name}", action="store_true")
    return parser


def _check_long_run(parser, options, chosen, others):
    """Refuses a long run that is combined with anything else."""
    selections = {
        "GROUP": options.groups,
        "--name": options.name is not None,
        "--preset": options.presets,
        "--list": options.list,
        "--jobs": options.jobs is not None and chosen != "coverage",
    }
    others = [f"--{name}" for name in others]
    others += [name for name, is_given in selections.items() if is_given]
    if others:
        parser.error(f"--{chosen} and {others[0]} do not go together")


def _check_selection(parser, options):
    for group in options.groups:
        if group not in GROUPS:
            parser.error(f"there is no group {group!r}; there are {', '.join(GROUPS)}")
    for preset in options.presets:
        if preset not in PRESETS:
            parser.error(f"there is no preset {preset!r} to test; there are {', '.join(PRESETS)}")
    if options.name is not None:
        try:
            re.compile(options.name)
        except re.error as error:
            parser.error(f"--name {options.name!r} is no regular expression: {error}")
    for preset in options.presets:
        if options.groups and not groups_of(preset, options.groups):
            parser.error(f"the group {options.groups[0]} is none of the preset {preset}")


def _number(parser, name, text, counted, most):
    if not re.fullmatch("[1-9][0-9]{0,8}", text) or int(text) > most:
        parser.error(f"{name} takes a number of {counted} from 1 to {most}, not {text!r}")
    return int(text)


def parse(words):
    """The options, checked and completed; ends the process with status 2 if they make no sense.

    `long_run` is the name of the long run or None, and `count` its number.
    """
    parser = _parser()
    options = parser.parse_args(words)
    given = [name for name in LONG_RUNS if getattr(options, name) not in (None, False)]
    options.long_run = given[0] if given else None
    options.count = None
    if options.long_run:
        _check_long_run(parser, options, options.long_run, given[1:])
        counted = LONG_RUNS[options.long_run]
        if counted:
            text = getattr(options, options.long_run)
            options.count = _number(parser, f"--{options.long_run}", text, *counted)
    if options.kinds and options.long_run != "router":
        parser.error("--kind goes with --router")
    _check_selection(parser, options)
    jobs = options.jobs
    if jobs is None:
        options.jobs = JOBS
    else:
        options.jobs = _number(parser, "--jobs", jobs, "tests at a time", MOST_JOBS)
    if options.long_run == COVERAGE:
        options.groups, options.presets = COVERAGE_GROUPS, [COVERAGE]
    elif not options.presets:
        some = options.groups or options.name is not None or options.list
        options.presets = ["release"] if some else list(PRESETS)
    options.presets = list(dict.fromkeys(options.presets))
    return options
