"""tshark's opinion of what routers sent in a run of the tests: python3 -m lab.dissect DIRECTORY"""

import pathlib
import subprocess
import sys

_EXPERT_ERROR = 0x800000
_REFUSED = f"not mdns or _ws.malformed or _ws.expert.severity == {_EXPERT_ERROR}"


def _refused(pcaps):
    """A line for each packet of these captures that tshark does not take for a well-formed
    multicast-DNS message."""
    merging = subprocess.Popen(["mergecap", "-w", "-", *pcaps], stdout=subprocess.PIPE)
    reading = subprocess.run(
        ["tshark", "-n", "-r", "-", "-Y", _REFUSED],
        stdin=merging.stdout,
        capture_output=True,
        text=True,
    )
    merging.stdout.close()
    if merging.wait() != 0 or reading.returncode != 0:
        sys.exit(f"the captures could not be read:\n{reading.stderr}")
    return reading.stdout.splitlines()


def main(directory):
    pcaps = sorted(pathlib.Path(directory).glob("*.pcap"))
    if not pcaps:
        return f"no captures in {directory}"
    if not _refused(pcaps):
        print(f"tshark finds every packet in {len(pcaps)} captures well-formed")
        return None
    problems = [f"{pcap.name}: {line}" for pcap in pcaps for line in _refused([pcap])]
    return "\n".join(["tshark refuses:", *problems])


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
