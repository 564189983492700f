"""How ./test runs tests: what it shows, its exit status, and what an interrupted run leaves."""

import signal
import time

import pytest
from commands import BOUND
from lab.waiting import wait_until
from runner.processes import PATIENCE_SECONDS

pytestmark = pytest.mark.release

BUILT = "echo '[1/1] Linking'"
RESULTS = """
for word; do results=$word; done
cat > "$results" <<'END'
<testsuite>
<testcase name="base/text: One" classname="unit" status="run"/>
<testcase name="base/text: Two" classname="unit" status="%s"/>
</testsuite>
END
echo "what it says"
"""
PASSED = RESULTS % "run"
FAILED = RESULTS % "fail" + "exit 8"
TWO_BUILDS = ("./test", "unit", "--preset", "release", "--preset", "debug")


def last_line(output):
    return output.splitlines()[-1]


def test_several_builds_end_in_one_summary_on_the_last_line(run, stand_ins, tmp_path):
    building = f'[ "$1" = --build ] || exit 0; nice > {tmp_path}/$3'
    environment = stand_ins(cmake=building, ctest=PASSED)
    status, output, errors = run(*TWO_BUILDS, "--preset", "tsan", environment=environment)
    assert (status, errors) == (0, "")
    # A build may begin before or after the tests of the one before.
    told = [line for line in output.splitlines() if line.startswith(("Buil", "Test"))]
    assert sorted(told) == [
        *("Building debug", "Building release", "Building tsan"),
        *("Testing debug", "Testing release", "Testing tsan"),
    ]
    assert output.count("what it says\n") == 3
    assert last_line(output) == "100% tests passed, 0 tests failed out of 6"
    # Builds beside tests leave the processor to them.
    first, second = (int((tmp_path / preset).read_text()) for preset in ("release", "debug"))
    assert second == min(first + 10, 19)


@pytest.mark.parametrize(
    "ctest, told, share, tests",
    [
        (FAILED, "The following tests FAILED:\n  unit: base/text: Two (debug)\n", 50, 2),
        ("exit 0", "no test of debug is meant", 0, 0),
        ("exit 3", "ctest of debug ended with status 3", 0, 0),
    ],
)
def test_what_fails_is_named_at_the_end(run, stand_ins, ctest, told, share, tests):
    status, output, _ = run("./test", "unit", environment=stand_ins(cmake=BUILT, ctest=ctest))
    assert status == 1
    assert told in output
    assert last_line(output) == f"{share}% tests passed, 1 tests failed out of {tests}"


def test_tests_of_ctest_and_of_pytest_are_chosen_and_listed_by_name(run):
    name = "Simulation.SeedsThatFailedOnce|style.py::test_flake"
    arguments = ("./test", "simulation", "style", "--name", name)
    status, output, _ = run(*arguments, "--list")
    assert (status, output.splitlines()) == (
        0,
        [
            "standard/simulation:Simulation.SeedsThatFailedOnceHold",
            "tests/style/test_style.py::test_flake8_finds_nothing",
        ],
    )
    status, output, _ = run(*arguments)
    assert (status, last_line(output)) == (0, "100% tests passed, 0 tests failed out of 2")


@pytest.mark.parametrize("command, preset", [("./test unit", "debug"), ("./demo", "router")])
def test_build_that_fails_shows_the_compilers_words_and_runs_nothing(
    run, stand_ins, command, preset
):
    failing = """
[ "$1" = --build ] || exit 0
echo '[1/9] Building CXX object a.o'
echo 'b.cpp:1: error: expected a declaration'
exit 2
"""
    environment = stand_ins(cmake=failing, ctest="echo tested")
    status, output, errors = run(*command.split(), environment=environment)
    assert (status, output) == (2, f"Building {preset}\n")
    assert errors == f"b.cpp:1: error: expected a declaration\n{preset} could not be built\n"


def test_packages_that_are_missing_are_installed_or_it_is_told_why_not(run, stand_ins):
    installing = '[ "$2" = update ] || { echo "no such package"; exit 100; }'
    environment = stand_ins(dpkg_query="", apt_get=installing, cmake="echo built")
    status, output, errors = run("./test", "unit", environment=environment)
    assert (status, output.count("\n")) == (100, 1)
    assert output.startswith("Installing cmake ")
    assert errors.startswith("no such package\nfailed: apt-get -q install -y ")


@pytest.mark.parametrize(
    "number, status", [(signal.SIGINT, 130), (signal.SIGTERM, 143), (signal.SIGHUP, 129)]
)
def test_interrupted_run_ends_builds_and_tests_at_once(start, stand_ins, tmp_path, number, status):
    """Also what tests started in sessions of their own."""
    building = f'[ "$1 $3" != "--build debug" ] || {{ touch {tmp_path}/building; sleep 600; }}'
    testing = f"setsid sleep 600 & touch {tmp_path}/testing; sleep 600"
    command = start(*TWO_BUILDS, environment=stand_ins(cmake=building, ctest=testing))
    signs = [tmp_path / "building", tmp_path / "testing"]
    wait_until(lambda: all(sign.exists() for sign in signs), "both are under way", 30)
    assert len(command.left()) > 3
    begun = time.monotonic()
    command.process.send_signal(number)
    assert command.process.wait(BOUND) == status
    command.wait_until_nothing_is_left()
    # Where the first process of a container waits for no orphan, what has ended seems to be there
    # until the patience is over.
    assert time.monotonic() - begun < PATIENCE_SECONDS + 5
    assert "Traceback" not in command.process.stderr.read()
    assert not list(tmp_path.glob("bonjour-test-*"))


INHERITED = """
umask
sed -n 's/^Sig\\(Ign\\|Blk\\):[[:blank:]]*//p' /proc/self/status
ls /proc/self/fd | wc -l
env | sed -n '/^L[CA]/p'
kill -INT $PPID
kill -HUP $PPID
"""


def test_tests_inherit_nothing_that_they_do_not_bear_and_ignored_signals_end_no_run(run, stand_ins):
    """As nohup and the background of a shell have it."""
    by_a_stranger = """
umask 077
trap '' INT HUP QUIT CHLD PIPE
exec 0<&- 8< /dev/null 9> /dev/null
exec env -i "PATH=$PATH" LANG=de_DE ./test unit
"""
    environment = stand_ins(cmake=BUILT, ctest=INHERITED + PASSED)
    status, output, _ = run("sh", "-c", by_a_stranger, environment=environment)
    assert status == 0
    inherited = output.partition("Testing debug\n")[2].splitlines()
    # Standard input, output and error, and that of the directory.
    assert inherited[:5] == ["0022", "0" * 16, "0" * 16, "4", "LC_ALL=C"]


def test_reader_that_goes_away_ends_the_run_and_nothing_is_left(start, stand_ins, tmp_path):
    endless = "mktemp -d; while echo one more; do :; done"
    command = start("./test", "unit", environment=stand_ins(cmake=BUILT, ctest=endless))
    command.process.stdout.readline()
    command.process.stdout.close()
    assert command.process.wait(BOUND) == 128 + signal.SIGPIPE
    assert command.process.stderr.read() == ""
    assert [path.name for path in tmp_path.iterdir()] == ["programs"]
