"""Builds of the daemon as strangers make them: somewhere else, with their tools and their flags."""

import json
import os
import pathlib
import shutil
import subprocess

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
# Where it does not matter what the compiler makes of it.
UNOPTIMISED = "-DCMAKE_BUILD_TYPE=Debug"
# What the daemon is not built of.
LEFT_OUT = shutil.ignore_patterns(".*", "bench", "build", "docs", "fuzz", "lab", "tests", "tools")


def copy_of_sources(directory):
    """All that the daemon is built of, in a new folder."""
    return shutil.copytree(ROOT, directory, ignore=LEFT_OUT)


def run(*command, directory=ROOT, **environment):
    """What the command prints. It must succeed, and knows nothing of our environment but PATH.

    Compilers give way to other tests, which measure times.
    """
    done = subprocess.run(
        ["/usr/bin/nice", "-n5", *command],
        cwd=directory,
        env={"PATH": os.environ["PATH"], **environment},
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
    )
    assert done.returncode == 0, done.stdout
    return done.stdout


def configure(directory, *options, source=ROOT, **environment):
    """Configures in the folder; returns what was printed."""
    return run("cmake", "-S", source, "-B", directory, *options, **environment)


def build(directory, *options, source=ROOT, **environment):
    """Configures and builds in the folder; returns what was printed."""
    configured = configure(directory, *options, source=source, **environment)
    return configured + run("cmake", "--build", directory, **environment)


def compiled_with(directory):
    """The words of each compiler call, by the path of its source file."""
    calls = json.loads((directory / "compile_commands.json").read_text())
    return {call["file"]: call["command"].split() for call in calls}


def cached(directory):
    """The settings that CMake keeps for this build, by name."""
    lines = (directory / "CMakeCache.txt").read_text().splitlines()
    entries = (line.split("=", 1) for line in lines if "=" in line and line[0] not in "#/")
    return {name.split(":")[0]: value for name, value in entries}


def needs(program):
    """The shared libraries that the program asks for."""
    lines = run("readelf", "-dW", program).splitlines()
    return [line.split("[")[1].rstrip("]") for line in lines if "(NEEDED)" in line]
