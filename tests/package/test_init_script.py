"""The init script with the shells of routers and desktops.

In the daemon's place is mostly a program that does nothing and ends on SIGTERM at once: what is
tested here is the script.
"""

import os
import re
import signal
import subprocess

import pytest
from small_system import DAEMON, DEFAULTS, PIDFILE, SCRIPT, SmallSystem, copy_program, install
from small_system import lay_out, write_program

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
LOCK = "var/run/bonjour.lock"
GATE = "tmp/gate"
# Becomes the daemon when the gate is open.
GATED_DAEMON = f"""#!/bin/sh
[ ! -p /{GATE} ] || read -r _ < /{GATE}
exec /opt/bonjour "$@"
"""


@pytest.fixture
def system(request, tmp_path, sandbox):
    """A root with this shell, and with a daemon that lasts until it is told to stop."""
    root = tmp_path / "root"
    # BusyBox's shell runs its own applets, whatever is in bin.
    usual = "dash" if "naps" in request.fixturenames else "busybox"
    lay_out(root, getattr(request, "param", usual))
    install(root)
    copy_program(FAKE_DAEMON, root, DAEMON)
    (root / DEFAULTS).write_text("MODEL=3600\n")
    return SmallSystem(root, sandbox)


with_every_shell = pytest.mark.parametrize("system", SHELLS, indirect=True)
with_dash = pytest.mark.parametrize("system", ["dash"], indirect=True)


@pytest.fixture
def naps(system):
    """Gives the system a `sleep` that takes whole seconds; its arguments so far, call by call."""
    (system.root / "bin/sleep").unlink()
    write_program(system.root / "bin/sleep", SLEEP_OF_WHOLE_SECONDS)
    noted = system.root / "tmp/naps"
    return lambda: noted.read_text().split() if noted.exists() else []


def write_settings(system, text):
    (system.root / DEFAULTS).write_text("MODEL=3600\n" + text)


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
    entries = system.of_process(pid, "fd").iterdir()
    leading = {int(entry.name): os.readlink(entry) for entry in entries}
    return {number: to for number, to in leading.items() if not to.startswith("mnt:")}


def access_mode(system, pid, descriptor):
    shown = system.of_process(pid, f"fdinfo/{descriptor}").read_text()
    return int(re.search(r"flags:\s+(\d+)", shown)[1], 8) & os.O_ACCMODE


@with_every_shell
def test_start_leaves_the_daemon_and_one_logger_with_an_unlinked_fifo_between(system):
    assert system.script("start") == 0
    wait_until_started(system)
    daemon = system.pid
    assert system.processes()[daemon] == ["/usr/sbin/bonjour", "3600"]
    (logger,) = system.processes().keys() - {daemon}
    assert sorted(descriptors(system, daemon)) == sorted(descriptors(system, logger)) == [0, 1, 2]
    pipe = descriptors(system, daemon)[1]
    assert pipe.endswith(".log (deleted)")
    assert descriptors(system, daemon)[2] == descriptors(system, logger)[0] == pipe
    # Each learns when the other has ended.
    assert access_mode(system, daemon, 1) == access_mode(system, daemon, 2) == os.O_WRONLY
    assert access_mode(system, logger, 0) == os.O_RDONLY


def test_daemon_has_its_own_session_and_keeps_no_directory_in_use(system):
    system.sh(f"cd /tmp && {SCRIPT} start")
    assert os.path.samefile(system.of_process(system.pid, "cwd"), system.root)
    fields = system.of_process(system.pid, "stat").read_text().rpartition(") ")[2].split()
    assert int(fields[3]) == system.pid


@with_dash
def test_without_setsid_a_hangup_does_not_end_the_daemon(system):
    (system.root / "bin/setsid").unlink()
    assert system.script("start") == 0
    wait_until_started(system)
    status = system.of_process(system.pid, "status").read_text()
    assert int(re.search(r"SigIgn:\s+(\w+)", status)[1], 16) & 1 << (signal.SIGHUP - 1)


@with_dash
@pytest.mark.parametrize("missing", ["logger", "mkfifo"])
def test_without_logger_or_mkfifo_the_daemon_runs_without_a_log(system, missing):
    (system.root / "bin" / missing).unlink()
    assert system.script("start") == 0
    assert system.programs() == ["bonjour"]
    assert descriptors(system, system.pid)[1].endswith("/dev/null")


# Actions, and the ways to call the script


def test_each_action_starts_or_stops_the_daemon(system):
    last = None
    for start, end in (("start", "stop"), ("boot", "shutdown")):
        assert system.script(start) == 0
        wait_until_started(system)
        first = system.pid
        # A second start leaves it alone.
        assert system.script("start") == 0
        assert system.pid == first
        for action in ("restart", "force-reload"):
            assert system.script(action) == 0
            assert system.pid not in (first, last)
            wait_until_started(system)
            last = system.pid
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


def test_unknown_action_names_the_known_ones(system):
    refused = system.run(SCRIPT, "reload")
    assert refused.returncode == 2
    known = "start|boot|stop|shutdown|restart|force-reload|run|status"
    assert refused.stderr == f"usage: /etc/init.d/bonjour {known}\n"


def test_status_tells_whether_the_daemon_runs(system):
    shown = system.run(SCRIPT, "status")
    assert (shown.returncode, shown.stdout) == (3, "bonjour is not running\n")
    system.script("start")
    shown = system.run(SCRIPT, "status")
    assert (shown.returncode, shown.stdout) == (0, "bonjour is running\n")


# Two calls at once


@pytest.fixture
def gate(system):
    """Daemons are held before they are what they become, until open_gate()."""
    (system.root / DAEMON).unlink()
    copy_program(FAKE_DAEMON, system.root, "opt/bonjour")
    write_program(system.root / DAEMON, GATED_DAEMON)
    os.mkfifo(system.root / GATE)


def open_gate(system):
    opened = (system.root / GATE).rename(system.root / f"{GATE}.open")
    # Those who wait for the first line see its end.
    os.close(os.open(opened, os.O_RDWR))


class Call:
    """A call of the init script that runs."""

    def __init__(self, system, action):
        self._system = system
        noting = system.root / "tmp/call"
        noting.unlink(missing_ok=True)
        line = f"echo $$ > /tmp/call; exec {SCRIPT} {action}"
        self._started = system.spawn("/bin/sh", "-c", line, stderr=subprocess.PIPE)
        system.wait_until(lambda: noting.exists() and noting.read_text(), f"{action} runs")
        self._pid = int(noting.read_text())

    def wait_until_it_waits(self):
        """Until it has opened the lock that another one holds."""
        lock = self._system.of_process(self._pid, "fd/9")
        self._system.wait_until(
            lambda: lock.is_symlink() or self._started.poll() is not None, "it opens the lock"
        )
        assert self._started.poll() is None

    def wait_until_a_daemon_is_held(self):
        self._system.wait_until(
            lambda: any(f"/{DAEMON}" in words for words in self._system.processes().values()),
            "the first daemon",
        )

    def kill(self):
        self._system.sh(f"kill -9 {self._pid}")
        self.status()

    def status(self):
        return self._started.wait(20)


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
    calls = [Call(system, first)]
    calls[0].wait_until_a_daemon_is_held()
    calls.append(Call(system, second))
    calls[1].wait_until_it_waits()
    open_gate(system)
    assert calls[1].status() == 0
    assert first == "run" or calls[0].status() == 0
    system.wait_until(lambda: system.programs() == left, left)
    assert system.script("status") == (0 if left else 3)
    stop(system)


@with_every_shell
def test_daemon_of_a_start_that_was_killed_is_waited_for_and_taken_over(system, gate):
    killed = Call(system, "start")
    killed.wait_until_a_daemon_is_held()
    killed.kill()
    second = Call(system, "start")
    second.wait_until_it_waits()
    open_gate(system)
    assert second.status() == 0
    wait_until_started(system)
    stop(system)


@pytest.mark.parametrize("action", ["start", "run"])
def test_daemon_of_a_stop_that_was_killed_is_ended_before_the_next_is_started(
    system, naps, action
):
    system.script("start")
    old = system.pid
    freeze(system)
    killed = Call(system, "stop")
    system.wait_until(naps, "it waits for the daemon's end")
    killed.kill()
    system.spawn(SCRIPT, action)
    system.wait_until(lambda: old not in system.processes(), "the end of the old daemon")
    wait_until_started(system)
    # Nothing is left to be ended.
    new = system.pid
    assert system.script("start") == 0
    assert system.pid == new


@pytest.mark.parametrize("action", ["start", "stop", "restart", "run"])
def test_call_gives_up_after_a_minute_of_another_one(system, naps, action):
    sleep = SLEEP_OF_WHOLE_SECONDS.replace("sleep 0.1", "true")
    write_program(system.root / "bin/sleep", sleep)
    holder = system.spawn("/bin/flock", f"/{LOCK}", "/bin/cat", stdin=subprocess.PIPE)
    system.wait_until(lambda: "cat" in system.programs(), "the lock is held")
    refused = system.run(SCRIPT, action)
    assert refused.returncode == 1
    assert refused.stderr == f"bonjour: another call of {SCRIPT} has not ended for 60 s\n"
    assert naps() == ["0.1", "1"] * 60
    assert system.programs() == ["cat", "flock"]
    holder.communicate()


def test_without_flock_the_daemon_is_started_and_stopped(system):
    (system.root / "bin/flock").unlink()
    assert system.script("start") == 0
    wait_until_started(system)
    stop(system)


# Settings


def limits(system, pid):
    """Address space and stack, soft and hard."""
    shown = system.of_process(pid, "limits").read_text()
    return re.findall(r"^Max (?:address space|stack size) +(\w+) +(\w+)", shown, re.MULTILINE)


@with_every_shell
@pytest.mark.parametrize("memory", ["40000", "much"])
def test_daemon_gets_its_settings(system, memory):
    """A limit that is not a number does not keep it from starting."""
    tunables = "GLIBC_TUNABLES=glibc.pthread.stack_cache_size=0"
    write_settings(system, f"MEMORY_LIMIT={memory}\nSTACK_LIMIT=200\n{tunables}\n")
    assert system.script("start") == 0
    wait_until_started(system)
    (logger,) = system.processes().keys() - {system.pid}
    stack, space = limits(system, system.pid)
    assert stack == ("204800", "204800")
    expected = "40960000" if memory == "40000" else limits(system, logger)[1][0]
    assert space == (expected, expected)
    assert limits(system, logger) == limits(system, 1)
    assert f"\0{tunables}\0" in "\0" + system.of_process(system.pid, "environ").read_text()


def test_daemon_keeps_the_limits_of_its_caller_without_settings(system):
    write_settings(system, "")
    system.script("start")
    assert limits(system, system.pid) == limits(system, 1)


# The action run: in the foreground, for an init that starts it again


@with_every_shell
def test_run_becomes_the_daemon(system):
    # A descriptor that the caller has open is nothing to the script.
    others = system.root / "tmp/others"
    started = system.spawn("/bin/sh", "-c", f"exec 5> /tmp/others; exec {SCRIPT} run")
    wait_until_started(system)
    assert others.read_text() == ""
    assert system.running
    assert sorted(descriptors(system, system.pid)) == [0, 1, 2]
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
    assert naps() == [str(PAUSE_SECONDS)]
    assert system.pid == pid
    wait_until_started(system)


def test_run_pauses_when_the_pid_file_cannot_be_written(system, naps):
    replace_by_a_file(system, (system.root / PIDFILE).parent)
    assert system.script("run") == 1
    assert naps() == [str(PAUSE_SECONDS)]


def test_stop_looks_once_a_second_where_sleep_takes_no_fractions(system, naps):
    system.script("start")
    freeze(system)
    assert system.script("stop") == 0
    # Then it was killed.
    assert naps()[: 2 * STOP_SECONDS] == ["0.1", "1"] * STOP_SECONDS
    wait_until_gone(system)


# What can go wrong


def replace_by_a_file(system, place):
    place.rmdir()
    place.write_text("")


def make_read_only(system, place):
    assert system.sandbox.spawn(["mount", "-t", "tmpfs", "-o", "ro", "run", place]).wait() == 0


def fill_up(system, place):
    full = f"mount -t tmpfs -o size=4k run {place} && ! yes > {place}/filled"
    assert system.sandbox.spawn(["sh", "-c", full], stderr=subprocess.DEVNULL).wait() == 0


@pytest.mark.parametrize(
    "system, damage",
    [(shell, replace_by_a_file) for shell in SHELLS]
    + [("busybox", make_read_only), ("busybox", fill_up)],
    indirect=["system"],
)
def test_daemon_whose_pid_file_cannot_be_written_is_not_started(system, damage):
    damage(system, (system.root / PIDFILE).parent)
    refused = system.run(SCRIPT, "start")
    assert refused.returncode == 1
    assert refused.stderr == (
        "bonjour: not started, because /var/run/bonjour.pid can't be written\n"
    )
    wait_until_gone(system)


def test_missing_directory_of_the_pid_file_is_made(system):
    (system.root / PIDFILE).parent.rmdir()
    assert system.script("start") == 0
    assert system.running
    assert (system.root / LOCK).exists()


@with_every_shell
def test_pid_file_with_the_pid_of_the_script_itself_does_not_keep_the_daemon_from_starting(system):
    assert system.sh(f"echo $$ > /{PIDFILE} && exec {SCRIPT} start").returncode == 0
    wait_until_started(system)


def test_stale_pid_file_does_not_keep_the_daemon_from_starting(system):
    for content in ("1", "4096", "", "self", "bonjour"):
        (system.root / PIDFILE).write_text(f"{content}\n")
        assert system.script("start") == 0, content
        wait_until_started(system)
        stop(system)


def test_stop_leaves_another_program_with_the_stale_pid_alone(system):
    other = system.spawn("/bin/cat", stdin=subprocess.PIPE)
    system.wait_until(lambda: system.programs() == ["cat"], "the other program")
    (pid,) = system.processes()
    (system.root / PIDFILE).write_text(f"{pid}\n")
    assert system.script("stop") == 0
    assert system.programs() == ["cat"]
    other.communicate()


def test_program_that_does_not_become_the_daemon_is_killed_after_five_seconds(system, naps):
    (system.root / "bin/setsid").unlink()
    write_program(system.root / "bin/setsid", "#!/bin/sh\nexec /bin/busybox sleep 3600\n")
    assert system.script("start") == 1
    assert naps() == ["0.1", "1"] * 5
    assert not (system.root / PIDFILE).exists()
    wait_until_gone(system)


@with_every_shell
def test_daemon_that_cannot_be_executed_is_a_failure(system):
    (system.root / DAEMON).write_text("#!/bin/missing\n")
    refused = system.run(SCRIPT, "start")
    assert refused.returncode == 1
    assert refused.stderr == "bonjour: /usr/sbin/bonjour could not be started\n"
    assert not (system.root / PIDFILE).exists()
    wait_until_gone(system)


@pytest.mark.parametrize("is_replaced", [True, False], ids=["replaced", "gone"])
def test_daemon_whose_file_is_another_or_gone_is_still_stopped(system, is_replaced):
    system.script("start")
    (system.root / DAEMON).unlink()
    if is_replaced:
        copy_program(FAKE_DAEMON, system.root, DAEMON)
    assert system.running
    stop(system)


@with_every_shell
def test_without_the_daemon_every_action_succeeds_and_says_nothing(system):
    """A Debian package that was removed, not purged, leaves the script."""
    (system.root / DAEMON).unlink()
    for action in ACTIONS:
        left = system.run(SCRIPT, action)
        assert (left.returncode, left.stdout, left.stderr) == (0, "", ""), action
