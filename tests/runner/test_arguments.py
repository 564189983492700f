"""What ./test makes of its arguments, before it installs or builds anything."""

import json
import re
import subprocess
import sys

import pytest
from conftest import ROOT
from lab.daemon import binary

sys.path.insert(0, str(ROOT / "tools/runner"))

import options  # noqa: E402

pytestmark = pytest.mark.release

HELP = (ROOT / "tools/runner/help.txt").read_text()


@pytest.mark.parametrize(
    "arguments, told",
    [
        ("sytem", "no group 'sytem'; there are unit, system, faults"),
        ("--preset mips", "no preset 'mips' to test; there are release, debug, tsan, clang"),
        ("--jobs 0", "--jobs takes a number of tests at a time from 1 to 1000, not '0'"),
        ("--jobs -1", "from 1 to 1000, not '-1'"),
        ("--jobs many", "from 1 to 1000, not 'many'"),
        ("--jobs 1001", "from 1 to 1000, not '1001'"),
        ("--jobs", "expected one argument"),
        ("--name (", "'(' is no regular expression"),
        ("--nmae x", "unrecognized arguments: --nmae"),
        ("--cov", "unrecognized arguments: --cov"),
        ("--mutants 0", "from 1 to 1000000, not '0'"),
        ("--soak 1.5", "--soak takes a number of seconds from 1 to 604800, not '1.5'"),
        ("--stops no", "--stops takes a number of stops from 1 to 100000, not 'no'"),
        ("--fuzz forever", "--fuzz takes a number of seconds from 1 to 604800, not 'forever'"),
        ("--soak 5 unit", "--soak and GROUP do not go together"),
        ("--fuzz 5 --list", "--fuzz and --list do not go together"),
        ("--mutants 5 --name x", "--mutants and --name do not go together"),
        ("--sweep unit", "--sweep and GROUP do not go together"),
        ("--memory --preset debug", "--memory and --preset do not go together"),
        ("--targets --jobs 2", "--targets and --jobs do not go together"),
        ("--coverage --preset debug", "--coverage and --preset do not go together"),
        ("--coverage --soak 5", "--coverage and --soak do not go together"),
        ("bench --preset debug", "the group bench is none of the preset debug"),
    ],
)
def test_arguments_without_a_sense_are_refused(run, stand_ins, arguments, told):
    environment = stand_ins(cmake="echo built", **{"apt-get": "echo installed"})
    status, output, errors = run("./test", *arguments.split(), environment=environment)
    assert (status, output) == (2, "")
    assert told in errors
    assert errors.endswith("./test --help tells of the arguments\n")
    assert errors.count("\n") == 2


def test_help_is_shown_to_anybody(run, stand_ins):
    status, output, errors = run("./test", "unit", "--help", environment=stand_ins(id="echo 1000"))
    assert (status, output, errors) == (0, HELP, "")


def test_help_names_each_group_with_what_it_is():
    groups = HELP.partition("only the tests of this group:\n")[2].partition("  --name")[0]
    assert tuple(re.findall(r"^      (\w+) +\w", groups, re.MULTILINE)) == options.GROUPS


@pytest.fixture(scope="module")
def build():
    return binary().parent


def test_groups_are_those_of_the_build(build):
    shown = subprocess.run(
        ["cmake", "--build", build, "--target", "help"], capture_output=True, text=True, check=True
    )
    groups = set(re.findall(r"^(\w+)_tests: phony$", shown.stdout, re.MULTILINE))
    assert groups == set(options.GROUPS)


def test_each_folder_of_tests_is_a_group():
    folders = {path.parent.name for path in ROOT.glob("tests/*/test_*.py")}
    # Those need builds of their own: tools/targets, tools/memory and tests/router/run run them.
    assert folders - {"targets", "memory", "router"} < set(options.GROUPS)


def test_each_unit_test_and_fuzzer_is_built(build):
    compiled = {call["file"] for call in json.loads((build / "compile_commands.json").read_text())}
    sources = {str(path) for path in ROOT.glob("tests/*/*_test.cpp")}
    sources |= {str(path) for path in ROOT.glob("fuzz/fuzz_*.cpp")}
    assert sources
    assert sources - compiled == set()


def test_root_is_asked_for_once_the_arguments_make_sense(run, stand_ins):
    environment = stand_ins(id="echo 1000", cmake="echo built")
    status, output, errors = run("./test", "unit", environment=environment)
    assert (status, output) == (1, "")
    assert "./test: must be run as root" in errors
    assert errors.count("\n") == 1
