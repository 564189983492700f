"""Builds a preset and reports progress: build.py [--background] PRESET [TARGET...]

Of what the compiler prints nothing is shown unless the build fails. With --background it leaves the
processor to whatever else wants it.
"""

import contextlib
import os
import pathlib
import re
import select
import signal
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
QUIET_SECONDS = 10
BACKGROUND = "--background"
NICENESS = 10
# What make and Ninja print before each step.
_STEP = re.compile(rb"\[ *(\d+(?:%|/\d+))\] ")


def _complain(preset, printed):
    sys.stderr.buffer.write(printed)
    print(f"{preset} could not be built", file=sys.stderr)


def _configure(preset):
    done = subprocess.run(
        ["cmake", "--preset", preset], cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT
    )
    if done.returncode != 0:
        _complain(preset, done.stdout)
    return done.returncode


def _follow(output, preset, start):
    """Reports every few seconds how many steps are done. Returns what else was printed."""
    rest, line, done = [], b"", None
    told = start
    while True:
        wait = max(0.0, told + QUIET_SECONDS - time.monotonic())
        if select.select([output], [], [], wait)[0]:
            taken = os.read(output.fileno(), 65536)
            if not taken:
                return b"".join([*rest, line])
            *lines, line = (line + taken).split(b"\n")
            for each in lines:
                step = _STEP.match(each)
                if step:
                    done = step[1].decode().replace("/", " of ") + " done"
                else:
                    rest.append(each + b"\n")
        if time.monotonic() >= told + QUIET_SECONDS:
            told = time.monotonic()
            print(f"  {preset}: {done or 'starting'}, {told - start:.0f} s", flush=True)


def _give_way():
    os.nice(NICENESS)
    # Where the kernel shares the processor between sessions first, niceness counts within one only.
    with contextlib.suppress(OSError):
        pathlib.Path("/proc/self/autogroup").write_text(str(NICENESS))


def main(*arguments):
    if arguments[0] == BACKGROUND:
        _give_way()
        arguments = arguments[1:]
    preset, *targets = arguments
    start = time.monotonic()
    print(f"Building {preset}", flush=True)
    status = _configure(preset)
    if status != 0:
        return status
    command = ["cmake", "--build", "--preset", preset, "--parallel", str(os.cpu_count() or 1)]
    if targets:
        command += ["--target", *targets]
    building = subprocess.Popen(
        command,
        cwd=ROOT,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        env={**os.environ, "NINJA_STATUS": "[%f/%t] "},
    )
    printed = _follow(building.stdout, preset, start)
    status = building.wait()
    if status != 0:
        _complain(preset, printed)
    elif time.monotonic() >= start + QUIET_SECONDS:
        print(f"  {preset}: built in {time.monotonic() - start:.0f} s", flush=True)
    return status


if __name__ == "__main__":
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    try:
        sys.exit(main(*sys.argv[1:]))
    except KeyboardInterrupt:
        sys.exit(130)
