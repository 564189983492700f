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
from small_system import lay_out

SHELLS = ["busybox", "dash", "bash"]
ACTIONS = "start boot stop shutdown restart force-reload run status other".split()
FAKE_DAEMON = "/bin/sleep"
STOP_SECONDS = 5
PAUSE_SECONDS = 5
# A router's `sleep` that takes whole seconds only. It notes its argument, and is quick.
SLEEP_OF_WHOLE_SECONDS = """#!/bin/sh
echo "$1" >> /tmp/sleep_arguments
case $1 in *.*) exit 1 ;; esac
exec /bin/busybox sleep 0.2
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
    lay_out(root, getattr(request, "param", "busybox"))
    install(root)
    copy_program(FAKE_DAEMON, root, DAEMON)
    (root / DEFAULTS).write_text("MODEL=3600\n")
    return SmallSystem(root, sandbox)


with_every_shell = pytest.mark.parametrize("system", SHELLS, indirect=True)
# For tests that replace a program in bin: BusyBox's shell runs its own applets instead.
with_dash = pytest.mark.parametrize("system", ["dash"], indirect=True)


def write_settings(system, text):
    (system.root / DEFAULTS).write_text("MODEL=3600\n" + text)


def sleep_arguments(system):
    """The arguments of `sleep`, call by call, since install_sleep_of_whole_seconds()."""
    noted = system.root / "tmp/sleep_arguments"
    return noted.read_text().split() if noted.exists() else []


def install_sleep_of_whole_seconds(system):
    sleep = system.root / "bin/sleep"
    sleep.unlink()
    sleep.write_text(SLEEP_OF_WHOLE_SECONDS)
    sleep.chmod(0o755)


def freeze(system):
    """Stops the daemon, so that no signal but SIGKILL ends it."""
    system.sh(f"kill -STOP {system.pid}")


def wait_until_started(system):
    """Until the daemon and its logger run, and nothing else does."""
    system.wait_until(lambda: system.programs() == ["bonjour", "logger"], "daemon and logger alone")


def wait_until_gone(system):
    system.wait_until(lambda: system.programs() == [], "the end of all programs")


# What a start leaves running


@with_every_shell
def test_start_leaves_the_daemon_and_one_logger(system):
    assert system.script("start") == 0
    assert system.processes()[system.pid] == ["/usr/sbin/bonjour", "3600"]
    wait_until_started(system)


def descriptors(system, pid):
    """Where its descriptors lead, but for the one by which the lab got into its sandbox."""
    entries = system.of_process(pid, "fd").iterdir()
    leading = {int(entry.name): os.readlink(entry) for entry in entries}
    return {number: to for number, to in leading.items() if not to.startswith("mnt:")}


def access_mode(system, pid, descriptor):
    shown = system.of_process(pid, f"fdinfo/{descriptor}").read_text()
    return int(re.search(r"flags:\s+(\d+)", shown)[1], 8) & os.O_ACCMODE


@with_every_shell
def test_unlinked_fifo_leads_from_the_daemon_to_the_logger(system):
    system.script("start")
    wait_until_started(system)
    daemon = system.pid
    (logger,) = (pid for pid, words in system.processes().items() if words[0] == "logger")
    assert sorted(descriptors(system, daemon)) == sorted(descriptors(system, logger)) == [0, 1, 2]
    pipe = descriptors(system, daemon)[1]
    assert pipe.endswith(".log (deleted)")
    assert descriptors(system, daemon)[2] == descriptors(system, logger)[0] == pipe
    # Each learns when the other has ended.
    assert access_mode(system, daemon, 1) == access_mode(system, daemon, 2) == os.O_WRONLY
    assert access_mode(system, logger, 0) == os.O_RDONLY


def test_daemon_keeps_no_directory_in_use(system):
    system.sh(f"cd /tmp && {SCRIPT} start")
    assert os.path.samefile(system.of_process(system.pid, "cwd"), system.root)


def test_daemon_has_a_session_of_its_own(system):
    system.script("start")
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


def test_start_boot_restart_and_force_reload_start_the_daemon(system):
    for action in ("start", "boot", "restart", "force-reload"):
        assert system.script(action) == 0
        wait_until_started(system)
        system.script("stop")
        wait_until_gone(system)


def test_stop_and_shutdown_stop_the_daemon(system):
    for action in ("stop", "shutdown"):
        system.script("start")
        assert system.script(action) == 0
        wait_until_gone(system)


def test_script_may_be_called_through_a_link(system):
    link = "/etc/init.d/S95bonjour"
    (system.root / link[1:]).symlink_to("bonjour")
    assert system.script("start", link) == 0
    wait_until_started(system)
    assert system.script("status", link) == 0
    assert system.script("stop", link) == 0
    assert not system.running


@with_every_shell
def test_script_may_be_called_by_a_relative_path(system):
    assert system.sh("cd /etc/init.d && sh bonjour start").returncode == 0
    wait_until_started(system)
    assert system.sh("cd /etc && init.d/bonjour status").returncode == 0
    assert system.sh("PATH=/etc/init.d:$PATH bonjour stop").returncode == 0
    assert not system.running


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


def test_second_start_leaves_the_running_daemon_alone(system):
    system.script("start")
    pid = system.pid
    assert system.script("start") == 0
    assert system.pid == pid
    wait_until_started(system)


def test_restart_gives_a_new_daemon(system):
    system.script("start")
    pid = system.pid
    assert system.script("restart") == 0
    assert system.pid != pid
    wait_until_started(system)


def test_stop_of_a_daemon_that_does_not_run_succeeds(system):
    assert system.script("stop") == 0


def test_stop_leaves_nothing(system):
    system.script("start")
    assert system.script("stop") == 0
    assert os.listdir((system.root / PIDFILE).parent) == [os.path.basename(LOCK)]
    wait_until_gone(system)


# Two calls at once


@pytest.fixture
def gate(system):
    """Daemons are held before they are what they become, until open_gate()."""
    (system.root / DAEMON).unlink()
    copy_program(FAKE_DAEMON, system.root, "opt/bonjour")
    (system.root / DAEMON).write_text(GATED_DAEMON)
    (system.root / DAEMON).chmod(0o755)
    close_gate(system)


def close_gate(system):
    os.mkfifo(system.root / GATE)


def held_daemons(system):
    return [words for words in system.processes().values() if f"/{DAEMON}" in words[1:]]


def open_gate(system):
    (system.root / GATE).rename(system.root / f"{GATE}.open")
    # Those who wait for the first line see its end.
    os.close(os.open(system.root / f"{GATE}.open", os.O_RDWR))
    (system.root / f"{GATE}.open").unlink()


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
        ("start", "stop", []),
        ("restart", "restart", ["bonjour", "logger"]),
        ("run", "start", ["bonjour", "logger"]),
        ("run", "stop", []),
    ],
)
def test_second_call_waits_until_the_first_has_ended(system, gate, first, second, left):
    calls = [Call(system, first)]
    system.wait_until(lambda: held_daemons(system), "the first daemon")
    calls.append(Call(system, second))
    calls[1].wait_until_it_waits()
    open_gate(system)
    assert calls[1].status() == 0
    assert first == "run" or calls[0].status() == 0
    system.wait_until(lambda: system.programs() == left, left)
    assert system.script("status") == (0 if left else 3)
    system.script("stop")
    wait_until_gone(system)


@with_every_shell
def test_daemon_of_a_start_that_was_killed_is_waited_for_and_taken_over(system, gate):
    killed = Call(system, "start")
    system.wait_until(lambda: held_daemons(system), "the first daemon")
    killed.kill()
    second = Call(system, "start")
    second.wait_until_it_waits()
    open_gate(system)
    assert second.status() == 0
    wait_until_started(system)
    system.script("stop")
    wait_until_gone(system)


@with_dash
@pytest.mark.parametrize("action", ["start", "run"])
def test_daemon_of_a_stop_that_was_killed_is_ended_before_the_next_is_started(system, action):
    install_sleep_of_whole_seconds(system)
    system.script("start")
    old = system.pid
    freeze(system)
    killed = Call(system, "stop")
    system.wait_until(lambda: sleep_arguments(system), "it waits for the daemon's end")
    killed.kill()
    started = system.spawn(SCRIPT, action)
    system.wait_until(lambda: old not in system.processes(), "the end of the old daemon")
    wait_until_started(system)
    # Nothing is left to be ended.
    new = system.pid
    assert system.script("start") == 0
    assert system.pid == new
    system.script("stop")
    started.wait()


@with_dash
def test_call_gives_up_after_a_minute_of_another_one(system):
    install_sleep_of_whole_seconds(system)
    (system.root / "bin/sleep").write_text(SLEEP_OF_WHOLE_SECONDS.replace("0.2", "0"))
    holder = system.spawn("/bin/flock", f"/{LOCK}", "/bin/cat", stdin=subprocess.PIPE)
    system.wait_until(lambda: "cat" in system.programs(), "the lock is held")
    for action in ("start", "stop", "restart", "run"):
        (system.root / "tmp/sleep_arguments").unlink(missing_ok=True)
        refused = system.run(SCRIPT, action)
        assert refused.returncode == 1, action
        assert refused.stderr == f"bonjour: another call of {SCRIPT} has not ended for 60 s\n"
        assert sleep_arguments(system) == ["0.1", "1"] * 60
    assert system.programs() == ["cat", "flock"]
    holder.communicate()


def test_without_flock_the_daemon_is_started_and_stopped(system):
    (system.root / "bin/flock").unlink()
    assert system.script("start") == 0
    wait_until_started(system)
    assert system.script("stop") == 0
    wait_until_gone(system)


# Settings


def test_daemon_gets_glibc_tunables_in_its_environment(system):
    write_settings(system, "GLIBC_TUNABLES=glibc.pthread.stack_cache_size=0\n")
    system.script("start")
    environment = system.of_process(system.pid, "environ").read_bytes().split(b"\0")
    assert b"GLIBC_TUNABLES=glibc.pthread.stack_cache_size=0" in environment


def limits(system, pid):
    shown = system.of_process(pid, "limits").read_text()
    return {
        name: re.search(rf"^{name} +(\S+) +(\S+)", shown, re.MULTILINE).groups()
        for name in ("Max address space", "Max stack size")
    }


@with_every_shell
def test_daemon_is_limited_as_its_settings_say(system):
    write_settings(system, "MEMORY_LIMIT=40000\nSTACK_LIMIT=200\n")
    system.script("start")
    assert limits(system, system.pid) == {
        "Max address space": ("40960000", "40960000"),
        "Max stack size": ("204800", "204800"),
    }
    wait_until_started(system)
    (logger,) = system.processes().keys() - {system.pid}
    assert limits(system, logger)["Max address space"] == ("unlimited", "unlimited")


def test_daemon_keeps_the_limits_of_its_caller_without_settings(system):
    write_settings(system, "")
    system.script("start")
    assert limits(system, system.pid) == limits(system, 1)


@with_every_shell
def test_limit_that_is_not_a_number_does_not_keep_the_daemon_from_starting(system):
    write_settings(system, "MEMORY_LIMIT=much\nSTACK_LIMIT=200\n")
    assert system.script("start") == 0
    assert limits(system, system.pid)["Max stack size"] == ("204800", "204800")


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


@with_dash
def test_run_pauses_after_an_unexpected_end(system):
    install_sleep_of_whole_seconds(system)
    system.script("start")
    system.sh(f"kill -9 {system.pid}")
    wait_until_gone(system)
    started = system.spawn(SCRIPT, "run")
    wait_until_started(system)
    assert sleep_arguments(system) == [str(PAUSE_SECONDS)]
    system.script("stop")
    started.wait()


@with_dash
def test_run_does_not_pause_after_a_stop(system):
    install_sleep_of_whole_seconds(system)
    system.script("start")
    system.script("stop")
    (system.root / "tmp/sleep_arguments").unlink(missing_ok=True)
    started = system.spawn(SCRIPT, "run")
    wait_until_started(system)
    assert sleep_arguments(system) == []
    system.script("stop")
    started.wait()


@with_dash
def test_run_beside_a_running_daemon_pauses_and_ends(system):
    install_sleep_of_whole_seconds(system)
    system.script("start")
    pid = system.pid
    assert system.script("run") == 0
    assert sleep_arguments(system) == [str(PAUSE_SECONDS)]
    assert system.pid == pid
    wait_until_started(system)


@with_dash
def test_run_pauses_when_the_pid_file_cannot_be_written(system):
    install_sleep_of_whole_seconds(system)
    replace_by_a_file(system, (system.root / PIDFILE).parent)
    assert system.script("run") == 1
    assert sleep_arguments(system) == [str(PAUSE_SECONDS)]


# Pauses of start and stop


@with_dash
def test_start_does_not_pause(system):
    install_sleep_of_whole_seconds(system)
    assert system.script("start") == 0
    assert sleep_arguments(system) == []


@with_dash
def test_stop_looks_once_a_second_where_sleep_takes_no_fractions(system):
    system.script("start")
    freeze(system)
    install_sleep_of_whole_seconds(system)
    assert system.script("stop") == 0
    # Then it was killed.
    assert sleep_arguments(system)[: 2 * STOP_SECONDS] == ["0.1", "1"] * STOP_SECONDS
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
        system.script("stop")
        wait_until_gone(system)


def test_stop_leaves_another_program_with_the_stale_pid_alone(system):
    other = system.spawn("/bin/cat", stdin=subprocess.PIPE)
    system.wait_until(lambda: system.programs() == ["cat"], "the other program")
    (pid,) = system.processes()
    (system.root / PIDFILE).write_text(f"{pid}\n")
    assert system.script("stop") == 0
    assert system.programs() == ["cat"]
    other.communicate()


@with_dash
def test_program_that_does_not_become_the_daemon_is_killed_after_five_seconds(system):
    install_sleep_of_whole_seconds(system)
    setsid = system.root / "bin/setsid"
    setsid.unlink()
    setsid.write_text("#!/bin/sh\nexec /bin/busybox sleep 3600\n")
    setsid.chmod(0o755)
    assert system.script("start") == 1
    assert sleep_arguments(system) == ["0.1", "1"] * 5
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


def test_daemon_whose_file_was_replaced_is_still_stopped(system):
    system.script("start")
    (system.root / DAEMON).unlink()
    copy_program(FAKE_DAEMON, system.root, DAEMON)
    assert system.running
    assert system.script("stop") == 0
    wait_until_gone(system)


@with_every_shell
def test_without_the_daemon_every_action_succeeds_and_says_nothing(system):
    """A Debian package that was removed, not purged, leaves the script."""
    (system.root / DAEMON).unlink()
    for action in ACTIONS:
        left = system.run(SCRIPT, action)
        assert (left.returncode, left.stdout, left.stderr) == (0, "", ""), action


def test_daemon_whose_file_is_gone_can_be_stopped(system):
    system.script("start")
    (system.root / DAEMON).unlink()
    assert system.script("stop") == 0
    wait_until_gone(system)
