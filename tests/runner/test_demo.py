"""./demo: what it refuses, where it runs, and what can be done while it stands."""

import re
import shutil
import signal
import subprocess

import pytest
from commands import BOUND, ROOT
from lab.daemon import binary

pytestmark = pytest.mark.release

STORY = ["/usr/bin/python3", "-B", "-m", "lab.demo"]


def test_container_without_rights_is_told_before_anything_is_built(run, stand_ins):
    command = ("setpriv", "--bounding-set=-net_admin", "./demo")
    status, output, errors = run(*command, environment=stand_ins(cmake="echo built"))
    assert (status, output) == (1, "")
    assert errors.startswith("The lab can't be set up on this machine: a network with a bridge")
    assert "a container must be given that right (docker run --privileged)" in errors
    assert errors.count("\n") == 1


@pytest.fixture
def story(start):
    """Starts the story itself, with the daemon of this build."""

    def begin(*command, environment=(), **options):
        own = {"BONJOUR": str(binary()), "PYTHONPATH": str(ROOT), "PYTHONUNBUFFERED": ""}
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
    status, output, errors = story(*wrapper, *STORY, environment=locale).finish()
    assert (status, errors) == (0, "")
    assert output.isascii()
    assert output.endswith("./demo --keep leaves it running to explore.\n")


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
    command = [*STORY, "--keep"]
    return Standing(story(*command, environment=environment, stdin=subprocess.PIPE, cwd=copy))


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
