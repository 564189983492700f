"""Plugs printers into a router's status file and unplugs them, to explore a lab by hand.

usage: python3 -m lab.plug STATUS_FILE in MANUFACTURER MODEL COMMANDS
       python3 -m lab.plug STATUS_FILE out MODEL
"""

import os
import pathlib
import re
import sys

from lab.printers import PORTS, Printer

_RECORD_LINES = 5


def _read(path):
    """The printers of a status file by their ports."""
    lines = path.read_text().splitlines()
    records = [lines[at : at + _RECORD_LINES] for at in range(0, len(lines), _RECORD_LINES)]
    found = {}
    for first, manufacturer, model, commands, last in records:
        port = int(re.fullmatch(r"usblp(\d)", first)[1])
        found[port] = Printer(port, manufacturer, model, commands, last_line=last)
    return found


def _write(path, printers):
    """In one step: no reader sees a mixture."""
    following = path.with_name(".printer_status.plug")
    following.write_text("".join(printers[port].record() for port in sorted(printers)))
    os.rename(following, path)


def _plug_in(printers, manufacturer, model, commands):
    free = [port for port in PORTS if port not in printers]
    if not free:
        sys.exit("all ports have a printer")
    printers[free[0]] = Printer(free[0], manufacturer, model, commands)
    return f"{manufacturer} {model} is plugged in at usblp{free[0]}"


def _pull_out(printers, model):
    for port, printer in printers.items():
        if model in (printer.model, f"{printer.manufacturer} {printer.model}"):
            del printers[port]
            return f"{printer.manufacturer} {printer.model} is pulled out of usblp{port}"
    there = ", ".join(f"{each.manufacturer} {each.model}" for each in printers.values())
    sys.exit(f"there is no printer {model!r}; there are: {there or 'none'}")


_ACTIONS = {("in", 3): _plug_in, ("out", 1): _pull_out}


def main(status_file="", action="", *words):
    act = _ACTIONS.get((action, len(words)))
    if act is None:
        sys.exit(__doc__.partition("\n\n")[2].strip())
    path = pathlib.Path(status_file)
    try:
        printers = _read(path)
        done = act(printers, *words)
        _write(path, printers)
    except OSError as error:
        sys.exit(f"{path}: {error.strerror}")
    except (TypeError, ValueError):
        sys.exit(f"{path} does not hold five lines for each printer")
    print(done)


if __name__ == "__main__":
    main(*sys.argv[1:])
