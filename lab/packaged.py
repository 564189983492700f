"""What the start scripts give the daemon beside its model: packaging/bonjour.default."""

import pathlib

from lab.daemon import has_sanitizer

_DEFAULTS = pathlib.Path(__file__).resolve().parent.parent / "packaging/bonjour.default"


def defaults():
    """The settings of the file by name."""
    lines = _DEFAULTS.read_text().splitlines()
    return dict(line.split("=", 1) for line in lines if line and not line.startswith("#"))


def as_packaged(**changes):
    """Arguments for router.start(): environment and limits as packaged, with `changes` to the
    file's settings; None removes one. A sanitizer gets no limits."""
    settings = {**defaults(), **changes}
    limits = ["prlimit"]
    for option, name in (("as", "MEMORY_LIMIT"), ("stack", "STACK_LIMIT")):
        if settings[name] and not has_sanitizer():
            limits.append(f"--{option}={int(settings[name]) * 1024}")
    tunables = settings["GLIBC_TUNABLES"]
    return {
        "environment": {"GLIBC_TUNABLES": tunables} if tunables else {},
        "wrapper": [*limits, "--"] if len(limits) > 1 else [],
    }
