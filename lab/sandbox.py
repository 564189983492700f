"""A router's own view of processes and files: see sandbox.sh, which lays it out."""

import os
import pathlib
import subprocess

from lab.netns import children_in_pid_namespace

_INIT = pathlib.Path(__file__).with_name("sandbox.sh")


class Sandbox:
    """Mount and process namespaces that end, with everything in them, when this is closed or when
    this process ends, whatever ends it."""

    def __init__(self):
        # A session of its own: Ctrl-C at the terminal is for the lab, which then ends the rest.
        self._holder = subprocess.Popen(
            ["unshare", "--mount", "--pid", "--fork", "--kill-child", "sh", str(_INIT)],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            start_new_session=True,
        )
        if self._holder.stdout.readline() != b"ready\n":
            raise RuntimeError("the sandbox could not be laid out; its message is on stderr")
        self.pid = self._holder.pid
        self._spawned = []
        self._mounts = os.open(f"/proc/{self.pid}/ns/mnt", os.O_RDONLY | os.O_CLOEXEC)
        self._processes = os.open(
            f"/proc/{self.pid}/ns/pid_for_children", os.O_RDONLY | os.O_CLOEXEC
        )

    def path(self, inside):
        """Path by which this process reaches the absolute path `inside` the sandbox."""
        return pathlib.Path(f"/proc/{self.pid}/root{inside}")

    def spawn(self, command, network=None, environment=None, **options):
        """Starts `command` inside, in `network` if given, as a child of this process.

        `environment` is added to ours for the command alone, not for the helpers that place it.
        `options` go to subprocess.Popen.
        """
        entering = ["nsenter", f"--mount=/proc/self/fd/{self._mounts}"]
        passing = [self._mounts]
        if network is not None:
            entering.append(f"--net=/proc/self/fd/{network.descriptor}")
            passing.append(network.descriptor)
        entering += ["--wd=/", "--"]
        if environment:
            entering += ["env", *(f"{name}={value}" for name, value in environment.items())]
        with children_in_pid_namespace(self._processes):
            started = subprocess.Popen(
                entering + [str(word) for word in command],
                pass_fds=passing,
                start_new_session=True,
                **options,
            )
        self._spawned.append(started)
        return started

    def close(self):
        if self._holder.stdin.closed:
            return
        self._holder.stdin.close()
        # The holder ends when every process in here has ended and was waited for by its parent.
        for started in self._spawned:
            started.wait()
        self._holder.wait()
        self._holder.stdout.close()
        os.close(self._mounts)
        os.close(self._processes)
