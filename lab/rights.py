"""Says what this machine lacks for the lab, in one sentence: rights.py [--fuse]

Looks for what the lab needs by doing it: networks of its own, a router's view of files and
processes, and with --fuse the kernel's device for printers. Status 0 when all is there.
"""

import pathlib
import subprocess
import sys

SANDBOX = pathlib.Path(__file__).with_name("sandbox.sh")
FUSE = pathlib.Path("/dev/fuse")


def _problem(what, command, **options):
    """The command's error message, on one line; None when it succeeds."""
    done = subprocess.run(
        command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, **options
    )
    if done.returncode == 0:
        return None
    said = " ".join(done.stderr.split()) or f"{command[0]} fails"
    if "propagation" in said:
        return "the root directory has to be a mount point; in this chroot it is none"
    hint = ""
    if "not permitted" in said or "denied" in said:
        hint = "; a container must be given that right (docker run --privileged)"
    return f"{what} is not possible{hint}: {said}"


def _network():
    for kind in ("bridge", "veth"):
        problem = _problem(
            f"a network with a {kind} interface of its own",
            ["unshare", "--net", "ip", "-batch", "-"],
            input=f"link add name0 type {kind}\n",
        )
        if problem:
            return problem
    return None


def _sandbox():
    return _problem(
        "a view of files and processes of its own",
        ["unshare", "--mount", "--pid", "--fork", "--kill-child", "sh", str(SANDBOX)],
        stdin=subprocess.DEVNULL,
    )


def _fuse():
    try:
        with FUSE.open("r+b", buffering=0):
            return None
    except OSError as error:
        return f"{FUSE} can't be opened, which printers' devices need: {error.strerror}"


def missing(fuse=False):
    """What is missing, as a sentence, or None."""
    if not pathlib.Path("/proc/self/ns/net").exists():
        return "/proc is not mounted"
    return _network() or _sandbox() or (_fuse() if fuse else None)


if __name__ == "__main__":
    sentence = missing("--fuse" in sys.argv[1:])
    sys.exit(f"The lab can't be set up on this machine: {sentence}" if sentence else 0)
