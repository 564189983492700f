"""How ./test runs tests: what it shows, its exit status, and what an interrupted run leaves."""

import pathlib
import signal
import socket
import sys
import time

import pytest
from conftest import BOUND, ROOT

sys.path.insert(0, str(ROOT / "tools/runner"))

from processes import PATIENCE_SECONDS  # noqa: E402

pytestmark = pytest.mark.release

BUILT = "echo '[1/1] Linking'"
PASSED = """
cat <<'END'
Test project /somewhere
      Start  1: base/text (release): One
      Start  2: base/text (release): Two
 1/12 Test  #2: base/text (release): Two ....   Passed    0.51 sec
12/12 Test  #1: base/text (release): One ....   Passed   11.00 sec

100% tests passed, 0 tests failed out of 12

Total Test time (real) =   3.00 sec
END
"""
FAILED = """
cat <<'END'
1/2 Test #1: base/text (release): One ....***Failed    0.51 sec
the reason

2/2 Test #2: base/text (release): Two ....***Exception: SegFault  0.20 sec

0% tests passed, 2 tests failed out of 2

The following tests FAILED:
    1 - base/text (release): One (Failed)
    2 - base/text (release): Two (SEGFAULT)
END
exit 8
"""


def lines_of_tests(output):
    return output.partition("Testing release\n")[2]


def test_tests_that_pass_are_counted(run, stand_ins):
    status, output, errors = run("./test", "unit", environment=stand_ins(cmake=BUILT, ctest=PASSED))
    assert (status, errors) == (0, "")
    assert lines_of_tests(output).startswith(
        " 1/12 Passed   0.51 s  base/text (release): Two\n"
        "12/12 Passed  11.00 s  base/text (release): One\n"
    )
    assert "100% tests passed, 0 tests failed out of 12\n" in output


def test_tests_that_fail_are_named_with_their_output(run, stand_ins):
    status, output, _ = run("./test", "unit", environment=stand_ins(cmake=BUILT, ctest=FAILED))
    assert status == 1
    assert lines_of_tests(output).startswith(
        "1/2 Failed   0.51 s  base/text (release): One\nthe reason\n\n"
        "2/2 Exception: SegFault   0.20 s  base/text (release): Two\n"
    )
    assert (
        "The following tests FAILED:\n"
        "  base/text (release): One (Failed)\n"
        "  base/text (release): Two (SEGFAULT)\n"
        "\n0% tests passed, 2 tests failed out of 2\n"
    ) in output


def test_several_builds_end_in_one_summary(run, stand_ins):
    environment = stand_ins(cmake=BUILT, ctest=PASSED)
    _, output, _ = run(
        *("./test", "unit", "--preset", "release", "--preset", "debug", "--preset", "clang"),
        environment=environment,
    )
    built_and_tested = [line for line in output.splitlines() if line.startswith(("Buil", "Test"))]
    assert sorted(built_and_tested) == [
        "Building clang",
        "Building debug",
        "Building release",
        "Testing debug",
        "Testing release",
    ]
    assert output.count("% tests passed") == 1
    assert "100% tests passed, 0 tests failed out of 24\n" in output


def test_each_line_is_one_write(start, stand_ins):
    """What builds and tests print at the same time is not mixed."""
    writes, written = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    with writes, written:
        start(
            *("./test", "unit", "--preset", "release", "--preset", "debug"),
            environment={**stand_ins(cmake=BUILT, ctest=PASSED), "PYTHONUNBUFFERED": "1"},
            stdout=written,
        )
        written.close()
        writes.settimeout(BOUND)
        chunks = list(iter(lambda: writes.recv(65536).decode(), ""))
    assert len(chunks) > 8
    assert all(chunk.endswith("\n") for chunk in chunks)


def test_builds_beside_tests_leave_the_processor_to_them(run, stand_ins, tmp_path):
    building = f"""
[ "$1" = --build ] || exit 0
{{ nice; cat /proc/self/autogroup; }} > {tmp_path}/$3 2> /dev/null || :
"""
    run(
        *("./test", "unit", "--preset", "release", "--preset", "debug"),
        environment=stand_ins(cmake=building, ctest=PASSED),
    )
    first, *_ = (tmp_path / "release").read_text().splitlines()
    second, *group = (tmp_path / "debug").read_text().splitlines()
    assert int(second) == int(first) + 10
    # A root of the whole system, whom the kernel lets set it as often as it likes.
    if pathlib.Path("/proc/self/uid_map").read_text().split() == ["0", "0", "4294967295"]:
        assert all(line.endswith(" nice 10") for line in group)


def test_run_of_nothing_fails(run, stand_ins):
    nothing = "echo 'No tests were found!!!'; exit 8"
    status, output, _ = run("./test", "unit", environment=stand_ins(cmake=BUILT, ctest=nothing))
    assert status == 1
    assert "no test of release is meant" in output


def test_build_that_fails_shows_the_compilers_words_and_runs_nothing(run, stand_ins):
    failing = """
[ "$1" = --build ] || exit 0
echo '[1/9] Building CXX object a.o'
echo '[2/9] Building CXX object b.o'
echo 'b.cpp:1: error: expected a declaration'
exit 2
"""
    environment = stand_ins(cmake=failing, ctest="echo tested")
    status, output, errors = run("./test", "unit", environment=environment)
    assert status == 2
    assert errors == "b.cpp:1: error: expected a declaration\nrelease could not be built\n"
    assert output == "Building release\n"


def test_long_build_tells_how_far_it_is(run, stand_ins):
    slow = """
[ "$1" = --build ] || exit 0
echo '[7/300] Building CXX object a.o'
exec sleep 11
"""
    environment = stand_ins(cmake=slow, ctest=PASSED)
    _, output, _ = run("./test", "unit", environment=environment)
    assert output.startswith(
        "Building release\n  release: 7 of 300 done, 10 s\n  release: built in 11 s\n"
    )


def end_of(command, number):
    """Sends the signal to the command alone, as to one in the background. Its status, and the
    seconds until all that it started has ended."""
    begun = time.monotonic()
    command.process.send_signal(number)
    status = command.process.wait(BOUND)
    while command.left():
        assert time.monotonic() - begun < BOUND, command.left()
        time.sleep(0.02)
    return status, time.monotonic() - begun


@pytest.mark.parametrize(
    "number, status", [(signal.SIGINT, 130), (signal.SIGTERM, 143), (signal.SIGHUP, 129)]
)
def test_interrupted_run_ends_builds_and_tests_at_once(start, stand_ins, tmp_path, number, status):
    """Also what tests started in sessions of their own, and what ignores the polite signal."""
    building = f"""
[ "$1" = --build ] || exit 0
[ "$3" = debug ] || exit 0
touch {tmp_path}/building
sleep 600
"""
    testing = f"""
setsid sh -c 'sleep 600' &
touch {tmp_path}/testing
sleep 600
"""
    command = start(
        *("./test", "unit", "--preset", "release", "--preset", "debug"),
        environment=stand_ins(cmake=building, ctest=testing),
    )
    deadline = time.monotonic() + BOUND
    while not all((tmp_path / name).exists() for name in ("building", "testing")):
        assert time.monotonic() < deadline
        time.sleep(0.02)
    ended, seconds = end_of(command, number)
    assert ended == status
    # Where the first process of a container waits for no orphan, what has ended seems to be there
    # until the patience is over.
    assert seconds < PATIENCE_SECONDS + 5
    assert "Traceback" not in command.process.stderr.read()
    assert not list(tmp_path.glob("bonjour-test-*"))


def test_reader_that_goes_away_ends_the_run(start, stand_ins, tmp_path):
    endless = "while echo '1/1 Test #1: base/text: One ....   Passed 0.1 sec'; do :; done"
    command = start("./test", "unit", environment=stand_ins(cmake=BUILT, ctest=endless))
    command.process.stdout.readline()
    command.process.stdout.close()
    assert command.process.wait(BOUND) == 128 + signal.SIGPIPE
    assert command.process.stderr.read() == ""
    assert not list(tmp_path.glob("bonjour-test-*"))


def test_nothing_is_left_in_the_directory_of_temporary_files(run, stand_ins, tmp_path):
    leaving = "mktemp; mktemp -d\n" + PASSED
    run("./test", "unit", environment=stand_ins(cmake=BUILT, ctest=leaving))
    assert [path.name for path in tmp_path.iterdir()] == ["programs"]


@pytest.mark.seconds(10)
def test_list_of_lab_tests_is_made_without_a_compiler(run, tree):
    environment = {"CCACHE_DISABLE": "1"}
    status, output, errors = run("./test", "--list", "system", cwd=tree, environment=environment)
    assert status == 0, errors
    assert not list(tree.glob("build/**/*.o"))
    names = output.splitlines()
    assert "system/probing (release): conflict gives the name a suffix" in names
    assert all(name.startswith("system/") for name in names)


@pytest.mark.parametrize("check", ["c and cpp are formatted", "shellcheck finds nothing"])
def test_check_of_the_style_that_finds_no_files_fails(run, tmp_path, check):
    """In a tree that is this one's check alone."""
    (tmp_path / "tests/style").mkdir(parents=True)
    copy = tmp_path / "tests/style/test_style.py"
    copy.write_text((ROOT / "tests/style/test_style.py").read_text())
    name = f"test_{check.replace(' ', '_')}"
    pytest_here = ["/usr/bin/python3", "-m", "pytest", "-q", "-p", "no:cacheprovider"]
    status, output, _ = run(*pytest_here, f"{copy}::{name}", cwd=tmp_path)
    assert status == 1
    assert "nothing to look at" in output
