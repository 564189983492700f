"""What the commands make of their arguments, before they install or build anything."""

import json
import re

import pytest
from commands import ROOT
from lab.daemon import binary
from runner import options

pytestmark = pytest.mark.release

NOTHING = {"cmake": "echo built", "apt_get": "echo installed", "id": "echo 0"}


@pytest.mark.parametrize(
    "command, told",
    [
        ("./test sytem", "no group 'sytem'; there are unit, simulation, system"),
        ("./test --preset mips", "--preset: invalid choice: 'mips' (choose from 'release', "),
        ("./test --jobs 0", "--jobs: takes a number from 1, not '0'"),
        ("./test --name (", "'(' is no regular expression"),
        ("./test --cov", "unrecognized arguments: --cov"),
        ("./test --soak 1.5", "--soak: takes a number from 1, not '1.5'"),
        ("./test --sweep unit", "--sweep and GROUP do not go together"),
        ("./test --memory --jobs 2", "--memory and --jobs do not go together"),
        ("./test --coverage --soak 5", "--soak: not allowed with argument --coverage"),
        ("./test --kind debian", "--kind goes with --router"),
        ("./test bench --preset debug", "the group bench is none of the preset debug"),
        ("./test --router --kind ppc", "--kind: invalid choice: 'ppc'"),
        ("./demo --kep", "there is no option '--kep'"),
        ("./demo --keep=yes", "there is no option '--keep=yes'"),
        ("./demo --standard --router", "--standard and --router do not go together"),
        ("./demo --kind", "there is no kind ''"),
    ],
)
def test_arguments_without_a_sense_are_refused(run, stand_ins, command, told):
    status, output, errors = run(*command.split(), environment=stand_ins(**NOTHING))
    assert (status, output) == (2, "")
    assert told in errors
    assert re.search(r"--help (lists the options|describes the arguments)\n", errors)
    assert errors.count("\n") <= 2


@pytest.mark.parametrize("command", ["./test unit", "./demo", "./demo --router"])
def test_help_is_shown_to_anybody_and_all_else_asks_for_root(run, stand_ins, command):
    environment = stand_ins(**{**NOTHING, "id": "echo 1000"})
    words = command.split()
    status, output, errors = run(*words, "--help", environment=environment)
    assert (status, errors) == (0, "")
    assert output.startswith("usage: ")
    status, output, errors = run(*words, environment=environment)
    assert (status, output) == (1, "")
    assert re.fullmatch(r".*: must be run as root: .*\n", errors)


def test_each_folder_of_tests_is_a_group():
    folders = {path.parent for path in ROOT.glob("tests/*/test_*.py")}
    # Those need builds of their own: ./test --targets, --memory and --router.
    folders -= {ROOT / "tests" / name for name in ("targets", "memory", "router")}
    assert folders < {ROOT / options.folder(group) for group in options.GROUPS}


def test_each_unit_test_and_fuzzer_is_built():
    commands = json.loads((binary().parent / "compile_commands.json").read_text())
    sources = {str(path) for path in ROOT.glob("tests/*/*_test.cpp")}
    sources |= {str(path) for path in ROOT.glob("fuzz/fuzz_*.cpp")}
    assert sources
    assert sources - {call["file"] for call in commands} == set()
