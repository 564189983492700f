"""Writes the list of a group's lab tests in the form that ctest includes."""

import argparse
import pathlib
import sys

import pytest

HERE = pathlib.Path(__file__).resolve().parent
CLIENT = [sys.executable, "-ES", str(HERE / "pytest_client.py")]
PYTEST = [*CLIENT, "-q", "-p", "no:cacheprovider", "--no-header"]

# Seconds before a test is given up, on a machine that is many times too busy.
TIMEOUT = 600
TIMEOUT_FACTOR = 15


class Collector:
    def __init__(self):
        self.items = []

    def pytest_collection_finish(self, session):
        self.items = session.items


def quoted(words):
    return " ".join(f"[==[{word}]==]" for word in words)


def test_name(options, module, name):
    """For instance "system/probing (release): conflict gives the name a suffix".

    ctest tells tests apart by name, also those of different builds in one run.
    """
    return f"{options.group}/{module} ({options.build.name}): {name.replace('_', ' ')}"


def is_for(item, build):
    """Whether a test is run on the build of that name."""
    if build == "coverage" and item.get_closest_marker("uncounted"):
        return False
    return build == "release" or not item.get_closest_marker("release")


def entries(items, options):
    group = options.group
    captures = options.build / "lab-captures" / group
    fixture = f"captures-{options.build.name}-{group}"
    environment = [
        f"BONJOUR={options.build / 'bonjour'}",
        f"BONJOUR_USBLP_DEVICE={options.build / 'lab/usblp_device'}",
        f"BONJOUR_LAB_CAPTURES={captures}",
        f"BONJOUR_LAB_FAILURES={options.build / 'lab-failures'}",
        f"PYTHONPATH={HERE.parent}",
        "PYTEST_DISABLE_PLUGIN_AUTOLOAD=1",
        # Each test is a process: what is compiled once serves all, of every build.
        "PYTHONDONTWRITEBYTECODE=",
        f"PYTHONPYCACHEPREFIX={options.build.parent / 'pycache'}",
    ]

    def entry(name, command, *properties, seconds=3):
        timeout = max(TIMEOUT, TIMEOUT_FACTOR * seconds)
        common = ["LABELS", group, "TIMEOUT", timeout, "COST", seconds, "WORKING_DIRECTORY", HERE]
        words = [*common, *properties, "ENVIRONMENT", ";".join(environment)]
        return (
            f"add_test({quoted([name, *command])})\n"
            f"set_tests_properties([==[{name}]==] PROPERTIES {quoted(words)})\n"
        )

    captured = [item for item in items if "lab" in item.fixturenames]
    if captured:
        yield entry(
            test_name(options, "captures", "start afresh"),
            ["cmake", "-E", "rm", "-rf", captures],
            *("FIXTURES_SETUP", fixture),
        )
    for item in items:
        mark = item.get_closest_marker("seconds")
        module = item.module.__name__.removeprefix("test_")
        yield entry(
            test_name(options, module, item.name.removeprefix("test_")),
            [*PYTEST, item.nodeid],
            *(("FIXTURES_REQUIRED", fixture) if item in captured else ()),
            *("RUN_SERIAL", item.get_closest_marker("alone") is not None),
            seconds=mark.args[0] if mark else 3,
        )
    if captured:
        yield entry(
            test_name(options, "captures", "are well-formed to a second dissector"),
            [sys.executable, "-m", "lab.dissect", captures],
            *("FIXTURES_CLEANUP", fixture),
        )


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--group", required=True)
    for option in ("output", "build"):
        parser.add_argument(f"--{option}", type=pathlib.Path, required=True)
    options = parser.parse_args()
    collector = Collector()
    arguments = ["--collect-only", "-qq", "-p", "no:cacheprovider", "--no-header"]
    arguments.append(str(HERE / options.group))
    status = pytest.main(arguments, plugins=[collector])
    if status != 0 or not collector.items:
        sys.exit(f"the {options.group} tests could not be listed")
    items = [item for item in collector.items if is_for(item, options.build.name)]
    options.output.write_text("".join(entries(items, options)) if items else "")


if __name__ == "__main__":
    main()
