"""./demo: what it refuses, where it runs, and what can be done while it stands."""

import ctypes
import os
import re
import shlex
import shutil
import signal
import subprocess
import threading

import pytest
from commands import BOUND, ROOT
from lab.daemon import binary

pytestmark = pytest.mark.release

PYTHON = ["/usr/bin/python3", "-B", "-m"]
LAST_LINE = "./demo --keep leaves it running to explore."


def test_container_without_rights_is_told_before_anything_is_built(run, stand_ins):
    command = ("setpriv", "--bounding-set=-net_admin", "./demo")
    status, output, errors = run(*command, environment=stand_ins(cmake="echo built"))
    assert (status, output) == (1, "")
    assert errors.startswith("The lab can't be set up on this machine: a network with a bridge")
    assert "a container must be given that right (docker run --privileged)" in errors
    assert errors.count("\n") == 1


def test_chroot_that_is_no_mount_point_is_told(run, tmp_path):
    """The system in a directory, as a chroot has it, but for the one thing that is missing."""
    making = f"""
    cd {tmp_path}
    for name in /*; do
      if [ -L "$name" ]; then cp -P "$name" .
      elif [ -d "$name" ]; then mkdir ".$name" && mount --rbind "$name" ".$name"
      fi
    done
    exec chroot . /bin/sh -c 'cd {shlex.quote(str(ROOT))} && exec ./demo'
    """
    status, output, errors = run("unshare", "--mount", "sh", "-ec", making)
    assert (status, output) == (1, "")
    assert errors == (
        "The lab can't be set up on this machine: "
        "the root directory has to be a mount point; in this chroot it is none\n"
    )


@pytest.fixture
def story(start):
    """Starts the story itself, with the daemon of this build."""

    def begin(*words, wrapper=(), environment=(), **options):
        own = {"BONJOUR": str(binary()), "PYTHONPATH": str(ROOT), "PYTHONUNBUFFERED": ""}
        command = [*wrapper, *PYTHON, "lab.demo", *words]
        return start(*command, environment={**own, **dict(environment)}, **options)

    return begin


@pytest.mark.seconds(20)
def test_story_needs_neither_fuse_nor_a_terminal_nor_other_letters_than_ascii(story, tmp_path):
    without_fuse = f"""
    mount -t tmpfs dev {tmp_path}
    cp -a /dev/null /dev/zero /dev/full /dev/random /dev/urandom {tmp_path}
    mount --move {tmp_path} /dev
    exec "$@"
    """
    wrapper = ["unshare", "--mount", "sh", "-ec", without_fuse, "sh"]
    locale = {"LC_ALL": "C", "PYTHONIOENCODING": "ascii", "PYTHONCOERCECLOCALE": "0"}
    status, output, errors = story(wrapper=wrapper, environment=locale).finish()
    assert (status, errors) == (0, "")
    assert output.isascii()
    assert output.rstrip().endswith(LAST_LINE)


PR_SET_CHILD_SUBREAPER = 36


def take_orphans_away():
    """As an init does, which a container may lack: a sandbox lasts as long as its zombies."""
    try:
        while True:
            os.wait()
    except ChildProcessError:
        pass


def test_reader_that_goes_away_ends_the_story_quietly(story):
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    command = story()
    assert command.process.stdout.readline() == "\n"
    command.process.stdout.close()
    assert command.process.wait(BOUND) == -signal.SIGPIPE
    threading.Thread(target=take_orphans_away, daemon=True).start()
    assert command.process.stderr.read() == ""
    command.wait_until_nothing_is_left()


class Standing:
    """The story with --keep, at the point where it stands; and its hints."""

    def __init__(self, command):
        self.process = command.process
        self.command = command
        told = self.wait_for_line("The daemon's log follows")
        self.hints = [line for line in told if re.match(r"(cat|env|nsenter|kill) ", line)]

    def wait_for_line(self, text):
        """The lines before it."""
        lines = []
        for line in self.process.stdout:
            if text in line:
                return lines
            lines.append(line.rstrip("\n"))
        raise AssertionError(f"it ended without: {text}")

    def paste(self, *words, then=""):
        """Runs the one hint that holds all these words, as a shell reads it. Its status and what
        it printed."""
        (hint,) = [hint for hint in self.hints if all(word in hint for word in words)]
        return subprocess.getstatusoutput(f"cd / && {hint}{then} < /dev/null")

    def end(self):
        assert self.process.wait(BOUND) == 0
        assert self.process.stderr.read() == ""
        self.command.wait_until_nothing_is_left()


@pytest.fixture
def standing(story, tmp_path):
    """The lab's own directory has a blank in its path."""
    copy = tmp_path / "a lab"
    shutil.copytree(ROOT / "lab", copy / "lab", ignore=shutil.ignore_patterns("__pycache__"))
    environment = {"PYTHONPATH": str(copy)}
    return Standing(story("--keep", environment=environment, stdin=subprocess.PIPE, cwd=copy))


@pytest.mark.seconds(20)
def test_hints_of_a_lab_that_stands_can_be_pasted(standing):
    name = "T5140_00-11-22-AA-BB-CC.local"
    printer = "Epson Stylus C62"
    assert standing.paste("cat ")[1].startswith("usblp0\nHP\nLaserJet 1018\nZJS,PJL\n\nusblp1\n")

    assert standing.paste("lab.plug", " in ") == (0, f"{printer} is plugged in at usblp2")
    standing.wait_for_line("| [Bonjour] device insert lp2")
    status, answers = standing.paste("lab.ask", "_ipp._tcp.local")
    assert (status, f"{printer} (aa:bb:cc) 2._ipp._tcp.local" in answers) == (0, True)
    status, answers = standing.paste("lab.ask", name)
    assert (status, answers.count(f"    {name}  A  120 s  192.168.77.1")) == (0, 3)
    assert standing.paste("lab.plug", " out ") == (0, f"{printer} is pulled out of usblp2")
    standing.wait_for_line("| [Bonjour] device remove lp2")

    status, shown = standing.paste("nsenter --mount", then=" -c 'ps -e -o comm; ip addr show br0'")
    assert (status, "bonjour\n" in shown, "inet 192.168.77.1/24" in shown) == (0, True, True)
    status, shown = standing.paste("nsenter --net", " bash", then=" -c 'ip addr show eth0'")
    assert (status, "inet 192.168.77.11/24" in shown) == (0, True)

    assert standing.paste("kill ") == (0, "")
    standing.wait_for_line("The daemon has ended with status 0; the lab is still up.")
    assert standing.paste("lab.ask", name) == (1, "nobody answered within 1 s")
    standing.process.stdin.write("\n")
    standing.process.stdin.close()
    standing.end()


@pytest.mark.seconds(10)
def test_lab_that_stands_is_taken_down_with_ctrl_c(standing):
    standing.process.send_signal(signal.SIGINT)
    standing.end()
    assert "The daemon has ended" not in standing.process.stdout.read()


@pytest.mark.parametrize(
    "printers, words, told",
    [
        (1, "lab.plug status out X", "there is no printer 'X'; there are: HP X0"),
        (0, "lab.plug status out X", "there is no printer 'X'; there are: none"),
        (0, "lab.plug status in HP", "usage: "),
        (10, "lab.plug status in HP Y PCL", "all ports have a printer"),
        (0, "lab.ask a.local NONSENSE", "a.local NONSENSE is no question: "),
        (0, "lab.ask a.local A", "this is no host of a lab, with an interface eth0 on its link: "),
    ],
)
def test_hint_that_is_used_wrongly_says_so(run, tmp_path, printers, words, told):
    records = [f"usblp{port}\nHP\nX{port}\nPCL\n\n" for port in range(printers)]
    (tmp_path / "status").write_text("".join(records))
    status, output, errors = run("unshare", "--net", *PYTHON, *words.split(), cwd=tmp_path)
    assert (status, output) == (1, "")
    assert told in errors
    assert "Traceback" not in errors
