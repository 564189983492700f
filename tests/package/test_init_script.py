"""The init script with the shells that routers and desks have. The daemon is mostly stood in for by
a program that does nothing and ends on SIGTERM at once: what is looked at here is the script."""

import os
import re
import signal
import subprocess

import pytest
from small_system import DAEMON, DEFAULTS, PIDFILE, SCRIPT, SmallSystem, copy_program, install
from small_system import lay_out

SHELLS = ["busybox", "dash", "bash"]
ACTIONS = "start boot stop shutdown restart force-reload run status other".split()
STAND_IN = "/bin/sleep"
STOP_SECONDS = 5
PAUSE_SECONDS = 5
# A router's `sleep` that knows whole seconds only; it tells what it was asked for, and is quick.
WHOLE_SECONDS = """#!/bin/sh
echo "$1" >> /tmp/slept
case $1 in *.*) exit 1 ;; esac
exec /bin/busybox sleep 0.2
"""


@pytest.fixture
def system(request, tmp_path, sandbox):
    """A root with this shell, and with a daemon that lasts until it is told to stop."""
    root = tmp_path / "root"
    lay_out(root, getattr(request, "param", "busybox"))
    install(root)
    copy_program(STAND_IN, root, DAEMON)
    (root / DEFAULTS).write_text("MODEL=3600\n")
    return SmallSystem(root, sandbox)


every_shell = pytest.mark.parametrize("system", SHELLS, indirect=True)
# BusyBox's shell takes its own applets, whatever there is beside it.
shell_without_applets = pytest.mark.parametrize("system", ["dash"], indirect=True)


def settings(system, text):
    (system.root / DEFAULTS).write_text("MODEL=3600\n" + text)


def slept(system):
    """What `sleep` was asked for since it was made to know whole seconds only."""
    told = system.root / "tmp/slept"
    return told.read_text().split() if told.exists() else []


def let_sleep_know_whole_seconds_only(system):
    sleep = system.root / "bin/sleep"
    sleep.unlink()
    sleep.write_text(WHOLE_SECONDS)
    sleep.chmod(0o755)


def freeze(system):
    """Lets the daemon hear of no signal but the one that kills it."""
    system.sh(f"kill -STOP {system.number}")


def wait_until_started(system):
    """Until the daemon and its logger run, and nothing else does."""
    system.wait_until(lambda: system.programs() == ["bonjour", "logger"], "daemon and logger alone")


def wait_until_gone(system):
    system.wait_until(lambda: system.programs() == [], "the end of all programs")


# What start leaves behind


@every_shell
def test_start_leaves_the_daemon_and_one_logger(system):
    assert system.script("start") == 0
    assert system.processes()[system.number] == ["/usr/sbin/bonjour", "3600"]
    wait_until_started(system)


def test_stop_leaves_nothing(system):
    system.script("start")
    assert system.script("stop") == 0
    assert not (system.root / PIDFILE).exists()
    wait_until_gone(system)


def descriptors(system, number):
    """Where its descriptors lead, but for the one by which the lab got into its sandbox."""
    entries = system.of_process(number, "fd").iterdir()
    leading = {int(entry.name): os.readlink(entry) for entry in entries}
    return {number: to for number, to in leading.items() if not to.startswith("mnt:")}


def access(system, number, descriptor):
    told = system.of_process(number, f"fdinfo/{descriptor}").read_text()
    return int(re.search(r"flags:\s+(\d+)", told)[1], 8) & os.O_ACCMODE


@every_shell
def test_a_pipe_without_a_name_leads_from_the_daemon_to_the_logger(system):
    system.script("start")
    wait_until_started(system)
    daemon = system.number
    (logger,) = (n for n, words in system.processes().items() if words[0] == "logger")
    assert sorted(descriptors(system, daemon)) == sorted(descriptors(system, logger)) == [0, 1, 2]
    pipe = descriptors(system, daemon)[1]
    assert pipe.endswith(".log (deleted)")
    assert descriptors(system, daemon)[2] == descriptors(system, logger)[0] == pipe
    # Each is told when the other has ended.
    assert access(system, daemon, 1) == access(system, daemon, 2) == os.O_WRONLY
    assert access(system, logger, 0) == os.O_RDONLY


def test_daemon_keeps_no_directory_in_use(system):
    system.sh(f"cd /tmp && {SCRIPT} start")
    assert os.path.samefile(system.of_process(system.number, "cwd"), system.root)


def test_daemon_has_a_session_of_its_own(system):
    system.script("start")
    fields = system.of_process(system.number, "stat").read_text().rpartition(") ")[2].split()
    assert int(fields[3]) == system.number


@shell_without_applets
def test_without_setsid_a_hangup_does_not_end_the_daemon(system):
    (system.root / "bin/setsid").unlink()
    assert system.script("start") == 0
    wait_until_started(system)
    status = system.of_process(system.number, "status").read_text()
    assert int(re.search(r"SigIgn:\s+(\w+)", status)[1], 16) & 1 << (signal.SIGHUP - 1)


@shell_without_applets
@pytest.mark.parametrize("missing", ["logger", "mkfifo"])
def test_without_logger_the_daemon_runs_without_a_log(system, missing):
    (system.root / "bin" / missing).unlink()
    assert system.script("start") == 0
    assert system.programs() == ["bonjour"]
    assert descriptors(system, system.number)[1].endswith("/dev/null")


# How long it takes


@shell_without_applets
def test_start_does_not_pause(system):
    let_sleep_know_whole_seconds_only(system)
    assert system.script("start") == 0
    assert slept(system) == []


@shell_without_applets
def test_stop_looks_once_a_second_where_sleep_knows_no_fractions(system):
    system.script("start")
    freeze(system)
    let_sleep_know_whole_seconds_only(system)
    assert system.script("stop") == 0
    # Then it was killed.
    assert slept(system)[: 2 * STOP_SECONDS] == ["0.1", "1"] * STOP_SECONDS
    wait_until_gone(system)


# How it is called


def test_four_actions_start_the_daemon(system):
    for action in ("start", "boot", "restart", "force-reload"):
        assert system.script(action) == 0
        wait_until_started(system)
        system.script("stop")
        wait_until_gone(system)


def test_two_actions_stop_the_daemon(system):
    for action in ("stop", "shutdown"):
        system.script("start")
        assert system.script(action) == 0
        wait_until_gone(system)


def test_link_that_an_init_calls_is_as_good_as_the_script(system):
    link = "/etc/init.d/S95bonjour"
    (system.root / link[1:]).symlink_to("bonjour")
    assert system.script("start", link) == 0
    wait_until_started(system)
    assert system.script("status", link) == 0
    assert system.script("stop", link) == 0
    assert not system.running


@every_shell
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
    told = system.run(SCRIPT, "status")
    assert (told.returncode, told.stdout) == (3, "bonjour is not running\n")
    system.script("start")
    told = system.run(SCRIPT, "status")
    assert (told.returncode, told.stdout) == (0, "bonjour is running\n")


def test_second_start_leaves_the_running_daemon_alone(system):
    system.script("start")
    number = system.number
    assert system.script("start") == 0
    assert system.number == number
    wait_until_started(system)


def test_restart_gives_a_new_daemon(system):
    system.script("start")
    number = system.number
    assert system.script("restart") == 0
    assert system.number != number
    wait_until_started(system)


def test_stop_of_a_daemon_that_does_not_run_is_no_failure(system):
    assert system.script("stop") == 0


# What can go wrong


def put_a_file_there(system, place):
    place.rmdir()
    place.write_text("")


def make_it_read_only(system, place):
    assert system.sandbox.spawn(["mount", "-t", "tmpfs", "-o", "ro", "run", place]).wait() == 0


def fill_it_up(system, place):
    full = f"mount -t tmpfs -o size=4k run {place} && ! yes > {place}/filled"
    assert system.sandbox.spawn(["sh", "-c", full], stderr=subprocess.DEVNULL).wait() == 0


@pytest.mark.parametrize(
    "system, spoil",
    [(shell, put_a_file_there) for shell in SHELLS]
    + [("busybox", make_it_read_only), ("busybox", fill_it_up)],
    indirect=["system"],
)
def test_daemon_that_nothing_could_stop_is_not_started(system, spoil):
    spoil(system, (system.root / PIDFILE).parent)
    refused = system.run(SCRIPT, "start")
    assert refused.returncode == 1
    assert refused.stderr == (
        "bonjour: not started, because /var/run/bonjour.pid can't be written\n"
    )
    wait_until_gone(system)


def test_missing_directory_for_the_number_is_made(system):
    (system.root / PIDFILE).parent.rmdir()
    assert system.script("start") == 0
    assert system.running


@every_shell
def test_number_of_the_script_itself_does_not_keep_the_daemon_from_starting(system):
    assert system.sh(f"echo $$ > /{PIDFILE} && exec {SCRIPT} start").returncode == 0
    wait_until_started(system)


def test_stale_number_does_not_keep_the_daemon_from_starting(system):
    for number in ("1", "4096", "", "self", "bonjour"):
        (system.root / PIDFILE).write_text(f"{number}\n")
        assert system.script("start") == 0, number
        wait_until_started(system)
        system.script("stop")
        wait_until_gone(system)


def test_stop_leaves_another_program_with_the_stale_number_alone(system):
    other = system.spawn("/bin/cat", stdin=subprocess.PIPE)
    system.wait_until(lambda: system.programs() == ["cat"], "the other program")
    (number,) = system.processes()
    (system.root / PIDFILE).write_text(f"{number}\n")
    assert system.script("stop") == 0
    assert system.programs() == ["cat"]
    other.communicate()


@shell_without_applets
def test_what_does_not_become_the_daemon_is_killed_after_five_seconds(system):
    let_sleep_know_whole_seconds_only(system)
    setsid = system.root / "bin/setsid"
    setsid.unlink()
    setsid.write_text("#!/bin/sh\nexec /bin/busybox sleep 3600\n")
    setsid.chmod(0o755)
    assert system.script("start") == 1
    assert slept(system) == ["0.1", "1"] * 5
    assert not (system.root / PIDFILE).exists()
    wait_until_gone(system)


@every_shell
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
    copy_program(STAND_IN, system.root, DAEMON)
    assert system.running
    assert system.script("stop") == 0
    wait_until_gone(system)


@every_shell
def test_without_the_daemon_every_action_succeeds_and_says_nothing(system):
    """A removed Debian package leaves the script behind."""
    (system.root / DAEMON).unlink()
    for action in ACTIONS:
        left = system.run(SCRIPT, action)
        assert (left.returncode, left.stdout, left.stderr) == (0, "", ""), action


def test_daemon_whose_file_is_gone_can_be_stopped(system):
    system.script("start")
    (system.root / DAEMON).unlink()
    assert system.script("stop") == 0
    wait_until_gone(system)


# Settings


def test_daemon_gets_the_settings_of_the_c_library(system):
    settings(system, "GLIBC_TUNABLES=glibc.pthread.stack_cache_size=0\n")
    system.script("start")
    environment = system.of_process(system.number, "environ").read_bytes().split(b"\0")
    assert b"GLIBC_TUNABLES=glibc.pthread.stack_cache_size=0" in environment


def limits(system, number):
    told = system.of_process(number, "limits").read_text()
    return {
        name: re.search(rf"^{name} +(\S+) +(\S+)", told, re.MULTILINE).groups()
        for name in ("Max address space", "Max stack size")
    }


@every_shell
def test_daemon_is_limited_as_its_settings_say(system):
    settings(system, "MEMORY_LIMIT=40000\nSTACK_LIMIT=200\n")
    system.script("start")
    assert limits(system, system.number) == {
        "Max address space": ("40960000", "40960000"),
        "Max stack size": ("204800", "204800"),
    }
    wait_until_started(system)
    (logger,) = system.processes().keys() - {system.number}
    assert limits(system, logger)["Max address space"] == ("unlimited", "unlimited")


def test_daemon_keeps_the_limits_of_its_caller_without_settings(system):
    settings(system, "")
    system.script("start")
    assert limits(system, system.number) == limits(system, 1)


@every_shell
def test_limit_that_is_no_number_does_not_keep_the_daemon_from_starting(system):
    settings(system, "MEMORY_LIMIT=much\nSTACK_LIMIT=200\n")
    assert system.script("start") == 0
    assert limits(system, system.number)["Max stack size"] == ("204800", "204800")


# In the foreground


@every_shell
def test_run_becomes_the_daemon(system):
    started = system.spawn(SCRIPT, "run")
    wait_until_started(system)
    assert system.running
    assert system.script("stop") == 0
    assert started.wait() == -signal.SIGTERM


@shell_without_applets
def test_run_pauses_after_an_end_that_nobody_asked_for(system):
    let_sleep_know_whole_seconds_only(system)
    system.script("start")
    system.sh(f"kill -9 {system.number}")
    wait_until_gone(system)
    started = system.spawn(SCRIPT, "run")
    wait_until_started(system)
    assert slept(system) == [str(PAUSE_SECONDS)]
    system.script("stop")
    started.wait()


@shell_without_applets
def test_run_does_not_pause_after_a_stop(system):
    let_sleep_know_whole_seconds_only(system)
    system.script("start")
    system.script("stop")
    (system.root / "tmp/slept").unlink(missing_ok=True)
    started = system.spawn(SCRIPT, "run")
    wait_until_started(system)
    assert slept(system) == []
    system.script("stop")
    started.wait()


@shell_without_applets
def test_run_beside_a_running_daemon_pauses_and_ends(system):
    let_sleep_know_whole_seconds_only(system)
    system.script("start")
    number = system.number
    assert system.script("run") == 0
    assert slept(system) == [str(PAUSE_SECONDS)]
    assert system.number == number
    wait_until_started(system)


@shell_without_applets
def test_run_pauses_when_the_number_has_no_place(system):
    let_sleep_know_whole_seconds_only(system)
    put_a_file_there(system, (system.root / PIDFILE).parent)
    assert system.script("run") == 1
    assert slept(system) == [str(PAUSE_SECONDS)]
