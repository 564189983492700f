"""The sources look alike, and the linters of their languages have nothing to say."""

import os
import pathlib
import re
import subprocess

import pytest

pytestmark = pytest.mark.release

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
# No sources of this project.
NOT_LOOKED_AT = re.compile(r"build$|\.")
SHELL = re.compile(rb"#!.*\b(ba|da|a)?sh\b")
PYTHON = re.compile(rb"#!.*\bpython3\b")


def files():
    for directory, folders, names in os.walk(ROOT):
        folders[:] = [name for name in folders if name == ".ci" or not NOT_LOOKED_AT.match(name)]
        yield from (pathlib.Path(directory, name) for name in sorted(names))


def sources(suffixes, first_line):
    """The files of one language, by their names or by their first line."""

    def is_meant(path):
        if path.suffix in suffixes:
            return True
        with open(path, "rb") as file:
            return bool(first_line and first_line.match(file.readline()))

    found = [path.relative_to(ROOT) for path in files() if is_meant(path)]
    assert found, "nothing to look at"
    return found


def check(linter, found):
    done = subprocess.run([*linter, *found], cwd=ROOT, capture_output=True, text=True)
    assert done.returncode == 0, done.stdout + done.stderr


def test_c_and_cpp_are_formatted():
    check(["clang-format", "--dry-run", "-Werror"], sources({".c", ".cpp", ".h"}, None))


# What each folder of the product may include. Neither app/ nor printer/ knows a responder by more
# than base/responder.h, and no responder knows those two or another responder.
MAY_INCLUDE = {
    "base": {"base"},
    "printer": {"base", "printer"},
    "records": {"base", "records"},
    "mdns": {"base", "records", "mdns"},
    "standard": {"base", "standard"},
    "app": {"base", "printer", "app"},
}
INCLUDE = re.compile(r'^#include "([^"/]+)/', re.MULTILINE)


def test_includes_point_one_way():
    upward = [
        (str(path), other)
        for path in sources({".cpp", ".h"}, None)
        for other in INCLUDE.findall((ROOT / path).read_text())
        if other not in MAY_INCLUDE.get(path.parts[0], {other})
    ]
    # The registry's head and mutex are fields of the one responder state.
    assert upward == [("records/state.h", "mdns")]


def test_shellcheck_finds_nothing():
    check(["shellcheck"], sources({".sh"}, SHELL))


def test_flake8_finds_nothing():
    check(["flake8"], sources({".py"}, PYTHON))
