"""The status file as a whole: when it is written, and that it is right at every moment."""

import os
import signal
import subprocess
import time

import pytest
from stock_system import STATUS_FILE

from lab.waiting import PATIENCE

ACME = b"MFG:Acme;MDL:Jet;CMD:PCL;"


def record(port):
    return f"usblp{port}\nAcme\nJet\nPCL\n\n"


def test_without_printers_the_file_is_there_and_empty(system):
    system.update()
    assert system.status == ""


def test_ten_printers_have_their_records_in_order(system):
    for port in (9, 3, 0, 7, 1, 8, 2, 6, 4, 5):
        system.plug_in(port, ACME)
    system.update()
    assert system.status == "".join(record(port) for port in range(10))


def test_printer_above_port_nine_is_left_out_with_a_line(system):
    for port in (10, 9, 11):
        system.plug_in(port, ACME)
    system.update()
    assert system.status == record(9)
    assert system.log == [
        "bonjour-printers: lp10: port above 9, not published",
        "bonjour-printers: lp11: port above 9, not published",
    ]


def test_broken_id_keeps_no_other_printer_out(system):
    system.plug_in(0, ACME)
    system.plug_in(1, b"")
    system.plug_in(2, ACME)
    system.update()
    assert system.status == record(0) + record(2)


def test_printer_that_has_gone_is_taken_out(system):
    system.plug_in(0, ACME)
    system.plug_in(1, ACME)
    system.update()
    system.pull_out(0)
    system.update()
    assert system.status == record(1)
    system.pull_out(1)
    system.update()
    assert system.status == ""


def test_everybody_may_read_it_and_nothing_else_lies_beside_it(system):
    system.plug_in(0, ACME)
    os.umask(0o077)
    system.update()
    assert (system.root / STATUS_FILE).stat().st_mode & 0o777 == 0o644
    assert (system.root / STATUS_FILE).parent.stat().st_mode & 0o777 == 0o755
    assert os.listdir((system.root / STATUS_FILE).parent) == ["printer_status"]


def test_reader_of_the_old_file_reads_it_to_its_end(system):
    system.plug_in(0, ACME)
    system.update()
    with open(system.root / STATUS_FILE) as reader:
        system.pull_out(0)
        system.update()
        assert reader.read() == record(0)


def test_file_that_is_right_is_not_written_again(system):
    system.plug_in(0, ACME)
    system.update()
    first = (system.root / STATUS_FILE).stat()
    system.update()
    assert (system.root / STATUS_FILE).stat() == first


def test_file_of_a_kernel_that_has_one_is_left_alone(system):
    (system.root / "proc/printer_status").write_text("")
    system.plug_in(0, ACME)
    system.update()
    assert not (system.root / STATUS_FILE).parent.exists()


@pytest.fixture
def paused_update(system):
    """Lets the next update that has looked at the printers say so, and wait until it is told to go
    on with writing the file."""
    cat = "/bin/busybox cat" if (system.root / "bin/busybox").exists() else "/bin/real-cat"
    system.run("mv", "/bin/cat", "/bin/real-cat")
    os.mkfifo(system.root / "looked")
    os.mkfifo(system.root / "goes-on")
    system.replace_program(
        "cat",
        f"""#!/bin/sh
        if mkdir /paused 2> /dev/null; then
          echo > /looked
          read -r _ < /goes-on
        fi
        exec {cat} "$@"
        """,
    )
    return system


def start_update(system):
    words = system.command("/usr/sbin/bonjour-printers", "update")
    return subprocess.Popen(words, start_new_session=True)


def test_update_that_was_overtaken_leaves_the_newer_state(paused_update):
    system = paused_update
    system.plug_in(0, ACME)
    late = start_update(system)
    (system.root / "looked").read_text()
    system.pull_out(0)
    system.plug_in(1, ACME)
    system.update()
    assert system.status == record(1)
    (system.root / "goes-on").write_text("\n")
    assert late.wait() == 0
    assert system.status == record(1)


def test_update_that_was_killed_is_in_no_later_ones_way(paused_update):
    system = paused_update
    system.plug_in(0, ACME)
    killed = start_update(system)
    (system.root / "looked").read_text()
    os.killpg(killed.pid, signal.SIGKILL)
    killed.wait()
    assert not (system.root / STATUS_FILE).exists()
    system.update()
    assert system.status == record(0)


def test_many_at_once_leave_the_state_of_the_end(system):
    """As when a hub with printers is plugged in: a call for each of them."""
    running = []
    for port in range(10):
        system.plug_in(port, ACME)
        running.append(start_update(system))
    for port in (4, 7):
        system.pull_out(port)
        running.append(start_update(system))
    assert [each.wait() for each in running] == [0] * len(running)
    assert system.status == "".join(record(port) for port in (0, 1, 2, 3, 5, 6, 8, 9))
    assert os.listdir((system.root / STATUS_FILE).parent) == ["printer_status"]


def test_attribute_that_the_kernel_makes_late_is_waited_for(system):
    system.plug_in(0, None)
    attribute = "/sys/devices/printer0/ieee1284_id"
    system.replace_program("sleep", f"#!/bin/sh\necho '{ACME.decode()}' > {attribute}\n")
    system.update()
    assert system.status == record(0)


def test_attribute_that_never_comes_is_waited_for_three_seconds(system):
    system.plug_in(0, None)
    system.replace_program("sleep", '#!/bin/sh\necho "slept $*" >> /slept\n')
    system.update()
    assert system.status == ""
    assert system.log == ["bonjour-printers: lp0: no device id, not published"]
    assert (system.root / "slept").read_text() == 3 * "slept 1\n"


def test_printer_that_goes_while_it_is_waited_for_is_none(system):
    system.plug_in(0, None)
    system.replace_program("sleep", "#!/bin/sh\nrm /sys/class/usbmisc/lp0\n")
    system.update()
    assert system.status == ""
    assert system.log == []


def test_printer_that_goes_while_its_id_is_read_is_none(debian):
    debian.plug_in(0, ACME)
    debian.run("mv", "/bin/awk", "/bin/real-awk")
    debian.replace_program(
        "awk", '#!/bin/sh\nrm -f /sys/class/usbmisc/lp0\nexec /bin/real-awk "$@"\n'
    )
    debian.update()
    assert debian.status == ""
    assert debian.log == []


def test_full_file_system_keeps_the_old_file(system):
    system.plug_in(0, ACME)
    update = "/usr/sbin/bonjour-printers update"
    # One page for a directory's files: the first is full after its record.
    script = f"""
        mkdir -p /var/run/bonjour
        mount -t tmpfs -o size=4k,mode=755 none /var/run/bonjour
        {update} || exit 3
        mv /sys/class/usbmisc/.lp1 /sys/class/usbmisc/lp1
        {update} 2> /dev/null && exit 4
        cat {STATUS_FILE}
        """
    system.plug_in(1, ACME)
    usb_printers = system.root / "sys/class/usbmisc"
    (usb_printers / "lp1").rename(usb_printers / ".lp1")
    done = subprocess.run(
        ["unshare", "--mount", *system.command("/bin/sh", "-c", script)],
        capture_output=True,
        text=True,
    )
    assert (done.returncode, done.stdout) == (0, record(0))


def test_without_a_logger_lines_go_to_standard_error(debian):
    (debian.root / "bin/logger").unlink()
    debian.plug_in(0, b"")
    done = debian.run("/usr/sbin/bonjour-printers", "update")
    assert (done.returncode, done.stdout) == (0, "")
    assert done.stderr == "lp0: no device id, not published\n"


def test_want_of_memory_for_a_program_keeps_the_old_file(debian):
    debian.plug_in(0, ACME)
    debian.update()
    debian.replace_program("awk", "#!/bin/sh\nexit 1\n")
    assert debian.run("/usr/sbin/bonjour-printers", "update").returncode == 1
    assert debian.status == record(0)


def test_update_is_quick(system):
    """It is run by udev, where only short programs may be."""
    for port in range(10):
        system.plug_in(port, ACME)
    begun = time.monotonic()
    system.update()
    assert time.monotonic() - begun < 2 * PATIENCE


@pytest.mark.parametrize(
    "arguments",
    [(), ("update", "x"), ("run",), ("x",)],
    ids=lambda words: " ".join(words) or "none",
)
def test_wrong_arguments_are_told_the_right_ones(system, arguments):
    done = system.run("/usr/sbin/bonjour-printers", *arguments)
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr.startswith("usage: bonjour-printers update\n")


def test_help_is_to_be_had(system):
    done = system.run("/usr/sbin/bonjour-printers", "--help")
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.startswith("usage: bonjour-printers update\n")
