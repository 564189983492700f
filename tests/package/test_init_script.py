"""The init script with the shells of routers and desktops, and the lines of inittab on the page
about firmware.

In the daemon's place is mostly a program that does nothing and ends on SIGTERM at once: what is
tested here is the script.
"""

import contextlib
import os
import pathlib
import re
import shutil
import signal
import subprocess

import pytest
from small_system import DAEMON, DEFAULTS, PIDFILE, SCRIPT, SmallSystem, copy_program, install
from small_system import lay_out, write_program

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
SHELLS = ["busybox", "dash", "bash"]
ACTIONS = "start boot stop shutdown restart force-reload run status other".split()
FAKE_DAEMON = "/bin/sleep"
STOP_SECONDS = 5
PAUSE_SECONDS = 5
# A router's `sleep` that takes whole seconds only. It notes its argument, and is quick.
SLEEP_OF_WHOLE_SECONDS = """#!/bin/sh
echo "$1" >> /tmp/naps
case $1 in *.*) exit 1 ;; esac
exec /bin/busybox sleep 0.1
"""
TUNABLES = "GLIBC_TUNABLES=glibc.pthread.stack_cache_size=0"
LOCK = "var/run/bonjour.lock"
# Becomes the daemon when the gate is open.
GATED_DAEMON = """#!/bin/sh
until [ -e /tmp/open ]; do sleep 0.01; done
exec /opt/bonjour "$@"
"""


@pytest.fixture
def system(request, tmp_path, sandbox):
    """A root with this shell, and with a daemon that lasts until it is told to stop."""
    root = tmp_path / "root"
    # Not BusyBox's shell, which runs its own applets, whatever is in bin.
    lay_out(root, getattr(request, "param", "dash"))
    install(root)
    copy_program(FAKE_DAEMON, root, DAEMON)
    (root / DEFAULTS).write_text("MODEL=3600\n")
    return SmallSystem(root, sandbox)


with_every_shell = pytest.mark.parametrize("system", SHELLS, indirect=True)


@pytest.fixture
def naps(system):
    """Gives the system a `sleep` that takes whole seconds; its arguments so far, call by call."""
    (system.root / "bin/sleep").unlink()
    write_program(system.root / "bin/sleep", SLEEP_OF_WHOLE_SECONDS)
    noted = system.root / "tmp/naps"
    return lambda: noted.read_text().split() if noted.exists() else []


def freeze(system):
    """Stops the daemon, so that no signal but SIGKILL ends it."""
    system.sh(f"kill -STOP {system.pid}")


def wait_until_started(system):
    """Until the daemon and its logger run, and nothing else does."""
    system.wait_until(lambda: system.programs() == ["bonjour", "logger"], "daemon and logger alone")


def wait_until_gone(system):
    system.wait_until(lambda: system.programs() == [], "the end of all programs")


def stop(system):
    assert system.script("stop") == 0
    wait_until_gone(system)


# What a start leaves running


def descriptors(system, pid):
    """Where its descriptors lead, but for the one by which the lab got into its sandbox."""
    leading = {}
    for entry in system.of_process(pid, "fd").iterdir():
        with contextlib.suppress(FileNotFoundError):
            leading[int(entry.name)] = os.readlink(entry)
    return {number: to for number, to in leading.items() if not to.startswith("mnt:")}


def wait_until_loaded(system, *pids):
    """Until they have the standard descriptors alone; while a program is loaded, its libraries are
    open, too."""
    wanted = [[0, 1, 2]] * len(pids)
    system.wait_until(
        lambda: [sorted(descriptors(system, pid)) for pid in pids] == wanted, "descriptors 0 to 2"
    )


def access_mode(system, pid, descriptor):
    shown = system.of_process(pid, f"fdinfo/{descriptor}").read_text()
    return int(re.search(r"flags:\s+(\d+)", shown)[1], 8) & os.O_ACCMODE


@with_every_shell
def test_start_leaves_the_daemon_and_one_logger_with_an_unlinked_fifo_between(system):
    assert system.sh(f"cd /tmp && {SCRIPT} start").returncode == 0
    wait_until_started(system)
    daemon = system.pid
    assert system.processes()[daemon] == ["/usr/sbin/bonjour", "3600"]
    (logger,) = system.processes().keys() - {daemon}
    wait_until_loaded(system, daemon, logger)
    pipe = descriptors(system, daemon)[1]
    assert pipe.endswith(".log (deleted)")
    assert descriptors(system, daemon)[2] == descriptors(system, logger)[0] == pipe
    # Each learns when the other has ended.
    assert access_mode(system, daemon, 1) == access_mode(system, daemon, 2) == os.O_WRONLY
    assert access_mode(system, logger, 0) == os.O_RDONLY
    # It has its own session and keeps no directory in use.
    assert os.path.samefile(system.of_process(daemon, "cwd"), system.root)
    fields = system.of_process(daemon, "stat").read_text().rpartition(") ")[2].split()
    assert int(fields[3]) == daemon


def test_without_setsid_a_hangup_does_not_end_the_daemon(system):
    (system.root / "bin/setsid").unlink()
    assert system.script("start") == 0
    wait_until_started(system)
    status = system.of_process(system.pid, "status").read_text()
    assert int(re.search(r"SigIgn:\s+(\w+)", status)[1], 16) & 1 << (signal.SIGHUP - 1)


@pytest.mark.parametrize("missing", ["logger", "mkfifo"])
def test_without_logger_or_mkfifo_the_daemon_runs_without_a_log(system, missing):
    (system.root / "bin" / missing).unlink()
    assert system.script("start") == 0
    system.wait_until(lambda: system.programs() == ["bonjour"], "the daemon alone")
    assert descriptors(system, system.pid)[1].endswith("/dev/null")


# Actions, and the ways to call the script


@with_every_shell
def test_each_action_starts_or_stops_the_daemon(system):
    for start, end in (("start", "stop"), ("boot", "shutdown")):
        pids = []
        for action in (start, "restart", "force-reload"):
            assert system.script(action) == 0
            wait_until_started(system)
            pids.append(system.pid)
        assert len(set(pids)) == 3
        # A second start leaves it alone.
        assert system.script(start) == 0
        assert system.pid == pids[-1]
        assert system.script(end) == 0
        wait_until_gone(system)
        assert os.listdir((system.root / PIDFILE).parent) == [os.path.basename(LOCK)]
        # Nor is there anything left to be stopped.
        assert system.script(end) == 0


@with_every_shell
def test_script_may_be_called_through_a_link_and_by_a_relative_path(system):
    (system.root / "etc/init.d/S95bonjour").symlink_to("bonjour")
    assert system.sh("cd /etc/init.d && sh bonjour start").returncode == 0
    wait_until_started(system)
    for line in ("/etc/init.d/S95bonjour status", "cd /etc && init.d/bonjour status"):
        assert system.sh(line).returncode == 0
    assert system.sh("PATH=/etc/init.d:$PATH bonjour stop").returncode == 0
    wait_until_gone(system)


@with_every_shell
def test_status_tells_whether_the_daemon_runs_and_another_action_which_there_are(system):
    shown = system.run(SCRIPT, "status")
    assert (shown.returncode, shown.stdout) == (3, "bonjour is not running\n")
    system.script("start")
    shown = system.run(SCRIPT, "status")
    assert (shown.returncode, shown.stdout) == (0, "bonjour is running\n")
    refused = system.run(SCRIPT, "reload")
    known = "start|boot|stop|shutdown|restart|force-reload|run|status"
    assert (refused.returncode, refused.stderr) == (2, f"usage: /etc/init.d/bonjour {known}\n")


# Two calls at once


@pytest.fixture
def gate(system):
    """Daemons are held before they are what they become, until this file is there."""
    copy_program(FAKE_DAEMON, system.root, "opt/bonjour")
    write_program(system.root / DAEMON, GATED_DAEMON)
    return system.root / "tmp/open"


def call_with_its_daemon_held(system, action):
    started = system.spawn(SCRIPT, action)
    system.wait_until(
        lambda: any(f"/{DAEMON}" in words for words in system.processes().values()), "its daemon"
    )
    return started


def call_that_waits(system, action):
    """It has opened the lock, which another one holds."""
    started = system.spawn(SCRIPT, action)
    lock = f"/proc/{started.pid}/fd/9"
    system.wait_until(lambda: os.path.realpath(lock).endswith(LOCK), "it opens the lock")
    return started


def kill(call):
    call.kill()
    call.wait()


@with_every_shell
@pytest.mark.parametrize(
    "first, second, left",
    [
        ("start", "start", ["bonjour", "logger"]),
        ("restart", "restart", ["bonjour", "logger"]),
        ("run", "stop", []),
    ],
)
def test_second_call_waits_until_the_first_has_ended(system, gate, first, second, left):
    calls = [call_with_its_daemon_held(system, first), call_that_waits(system, second)]
    gate.touch()
    assert calls[1].wait() == 0
    assert first == "run" or calls[0].wait() == 0
    system.wait_until(lambda: system.programs() == left, left)
    assert system.script("status") == (0 if left else 3)
    stop(system)


@with_every_shell
def test_daemon_of_a_start_that_was_killed_is_waited_for_and_taken_over(system, gate):
    kill(call_with_its_daemon_held(system, "start"))
    second = call_that_waits(system, "start")
    gate.touch()
    assert second.wait() == 0
    wait_until_started(system)
    stop(system)


@pytest.mark.parametrize("action", ["start", "run"])
def test_daemon_of_a_stop_that_was_killed_is_ended_before_the_next_is_started(
    system, naps, action
):
    system.script("start")
    old = system.pid
    freeze(system)
    stopping = system.spawn(SCRIPT, "stop")
    system.wait_until(naps, "it waits for the daemon's end")
    kill(stopping)
    system.spawn(SCRIPT, action)
    system.wait_until(lambda: old not in system.processes(), "the end of the old daemon")
    wait_until_started(system)
    # Nothing is left to be ended.
    new = system.pid
    assert system.script("start") == 0
    assert system.pid == new


# Settings


def limits(system, pid):
    """Of the stack and of the address space, soft and hard."""
    shown = system.of_process(pid, "limits").read_text()
    return re.findall(r"^Max (?:address space|stack size) +(\w+) +(\w+)", shown, re.MULTILINE)


@with_every_shell
@pytest.mark.parametrize(
    "settings, space, stack",
    [
        ("MEMORY_LIMIT=40000\nSTACK_LIMIT=200\n", "40960000", "204800"),
        ("MEMORY_LIMIT=much\nSTACK_LIMIT=200\n", None, "204800"),
        ("", None, None),
    ],
    ids=["both", "one that is not a number", "none"],
)
def test_daemon_gets_the_limits_of_its_settings_or_else_of_its_caller(
    system, settings, space, stack
):
    (system.root / DEFAULTS).write_text(f"MODEL=3600\n{TUNABLES}\n{settings}")
    assert system.script("start") == 0
    wait_until_started(system)
    (logger,) = system.processes().keys() - {system.pid}
    usual = limits(system, 1)
    assert limits(system, logger) == usual
    wanted = [(value, value) if value else same for value, same in zip((stack, space), usual)]
    assert limits(system, system.pid) == wanted
    assert f"\0{TUNABLES}\0" in system.of_process(system.pid, "environ").read_text()


# The action run: in the foreground, for an init that starts it again


@with_every_shell
def test_run_becomes_the_daemon(system):
    # A descriptor that the caller has open is nothing to the script.
    others = system.root / "tmp/others"
    started = system.spawn("/bin/sh", "-c", f"exec 5> /tmp/others; exec {SCRIPT} run")
    wait_until_started(system)
    assert others.read_text() == ""
    assert system.running
    wait_until_loaded(system, system.pid)
    assert system.script("stop") == 0
    assert started.wait() == -signal.SIGTERM


def test_run_pauses_after_an_unexpected_end_and_not_after_a_stop(system, naps):
    system.script("start")
    system.sh(f"kill -9 {system.pid}")
    wait_until_gone(system)
    for expected in ([str(PAUSE_SECONDS)], []):
        before = len(naps())
        system.spawn(SCRIPT, "run")
        wait_until_started(system)
        assert naps()[before:] == expected
        stop(system)


def test_run_beside_a_running_daemon_pauses_and_ends(system, naps):
    system.script("start")
    # That takes no pause.
    assert naps() == []
    pid = system.pid
    assert system.script("run") == 0
    assert (naps(), system.pid) == ([str(PAUSE_SECONDS)], pid)


def test_stop_looks_once_a_second_where_sleep_takes_no_fractions(system, naps):
    system.script("start")
    freeze(system)
    assert system.script("stop") == 0
    # Then it was killed.
    assert naps()[: 2 * STOP_SECONDS] == ["0.1", "1"] * STOP_SECONDS
    wait_until_gone(system)


# What can go wrong

NOT_WRITTEN = "not started, because /var/run/bonjour.pid can't be written"
NOT_STARTED = "/usr/sbin/bonjour could not be started"
NOT_ENDED = f"another call of {SCRIPT} has not ended for 60 s"
MINUTE = ["0.1", "1"] * 60


def replace_directory_by_a_file(system):
    place = (system.root / PIDFILE).parent
    place.rmdir()
    place.write_text("")


def hold_lock(system):
    quick = SLEEP_OF_WHOLE_SECONDS.replace("sleep 0.1", "true")
    write_program(system.root / "bin/sleep", quick)
    system.spawn("/bin/flock", f"/{LOCK}", "/bin/sh", "-c", "read -r _", stdin=subprocess.PIPE)
    system.wait_until(lambda: "sh" in system.programs(), "the command that holds the lock")


def replace_setsid(system):
    (system.root / "bin/setsid").unlink()
    write_program(system.root / "bin/setsid", "#!/bin/sh\nexec /bin/busybox sleep 3600\n")


def break_daemon(system):
    (system.root / DAEMON).write_text("#!/bin/missing\n")


@pytest.mark.parametrize(
    "damage, action, complaint, pauses",
    [
        (replace_directory_by_a_file, "start", NOT_WRITTEN, []),
        (replace_directory_by_a_file, "run", NOT_WRITTEN, [str(PAUSE_SECONDS)]),
        (hold_lock, "start", NOT_ENDED, MINUTE),
        (hold_lock, "stop", NOT_ENDED, MINUTE),
        (hold_lock, "restart", NOT_ENDED, MINUTE),
        (hold_lock, "run", NOT_ENDED, MINUTE),
        (replace_setsid, "start", NOT_STARTED, ["0.1", "1"] * 5),
        (break_daemon, "start", NOT_STARTED, []),
    ],
)
def test_call_that_fails_says_why_and_leaves_no_daemon(
    system, naps, damage, action, complaint, pauses
):
    damage(system)
    refused = system.run(SCRIPT, action)
    assert (refused.returncode, refused.stderr) == (1, f"bonjour: {complaint}\n")
    assert naps() == pauses
    system.wait_until(lambda: set(system.programs()) <= {"flock", "sh"}, "no daemon")
    assert not (system.root / PIDFILE).exists()


@with_every_shell
@pytest.mark.parametrize("damage", [replace_directory_by_a_file, break_daemon])
def test_start_that_fails_is_noticed_by_every_shell(system, damage):
    damage(system)
    assert system.script("start") == 1
    wait_until_gone(system)


@with_every_shell
def test_stale_pid_file_does_not_keep_the_daemon_from_starting(system):
    """Not even with the PID of the script itself, nor does a missing directory of it."""
    for content in ("1", "4096", "", "self", "bonjour", "$$"):
        assert system.sh(f"echo {content} > /{PIDFILE} && exec {SCRIPT} start").returncode == 0
        wait_until_started(system)
        stop(system)
    shutil.rmtree((system.root / PIDFILE).parent)
    assert system.script("start") == 0
    assert system.running
    assert (system.root / LOCK).exists()


def test_stop_leaves_another_program_with_the_stale_pid_alone(system):
    other = system.spawn("/bin/cat", stdin=subprocess.PIPE)
    system.wait_until(lambda: system.programs() == ["cat"], "the other program")
    (pid,) = system.processes()
    (system.root / PIDFILE).write_text(f"{pid}\n")
    assert system.script("stop") == 0
    assert system.programs() == ["cat"]
    other.communicate()


def test_daemon_whose_file_is_gone_is_still_stopped(system):
    """The same as with another one in its place, but for the script's look for the file."""
    system.script("start")
    (system.root / DAEMON).unlink()
    assert system.running
    stop(system)


@with_every_shell
def test_without_the_daemon_every_action_succeeds_and_says_nothing(system):
    """A Debian package that was removed, not purged, leaves the script."""
    (system.root / DAEMON).unlink()
    for action in ACTIONS:
        left = system.run(SCRIPT, action)
        assert (left.returncode, left.stdout, left.stderr) == (0, "", ""), action


def test_documented_lines_of_inittab_are_those_of_the_router_that_is_booted():
    """tests/router/ boots it: its init respawns the daemon, and stops it at the end."""
    page, inittab = ROOT / "docs/firmware.md", ROOT / "lab/vm/guest/busybox/inittab"
    lines = re.findall(r"^::\w+:.*bonjour.*$", page.read_text(), re.MULTILINE)
    assert lines and set(lines) < set(inittab.read_text().splitlines())
