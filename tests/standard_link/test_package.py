"""The daemon with the standard responder as it is packaged."""

import pathlib
import re
import shutil
import subprocess

import pytest
from lab.dual import HOST, IPP, QU, has, program, query

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
SETTINGS = [ROOT / "packaging/bonjour.service.in", ROOT / "packaging/standard/bonjour.service.conf"]
SIZE_MAX = 60 * 1024
NOBODY = "65534"
INSIDE = "/dev/.bonjour"

# Becomes a program that makes these calls alone, and sockets of these families alone.
CONFINE = """
import errno, os, seccomp, socket, sys
calls, families, *command = sys.argv[1:]
allowed = seccomp.SyscallFilter(defaction=seccomp.ERRNO(errno.EPERM))
for call in calls.split(","):
    if seccomp.resolve_syscall(seccomp.Arch(), call) < 0:
        continue
    if call != "socket":
        allowed.add_rule(seccomp.ALLOW, call)
        continue
    for family in families.split(","):
        number = getattr(socket, family)
        allowed.add_rule(seccomp.ALLOW, call, seccomp.Arg(0, seccomp.EQ, number))
allowed.load()
os.execv(command[0], command)
"""


def setting(name):
    """The words of a setting of the unit and of the drop-in."""
    texts = "\n".join(path.read_text() for path in SETTINGS)
    return " ".join(re.findall(rf"^{name}=(.*)$", texts, re.MULTILINE)).split()


def allowed_calls():
    names = set()
    for word in setting("SystemCallFilter"):
        if not word.startswith("@"):
            names.add(word)
            continue
        shown = subprocess.run(
            ["systemd-analyze", "syscall-filter", word], capture_output=True, text=True, check=True
        )
        names.update(re.findall(r"^ +([a-z]\w*)$", shown.stdout, re.MULTILINE))
    return names


@pytest.mark.release
def test_it_needs_the_c_library_and_nothing_else():
    shown = subprocess.run(["readelf", "-d", program()], capture_output=True, text=True, check=True)
    assert re.findall(r"NEEDED.*\[(.*)\]", shown.stdout) == ["libc.so.6"]


@pytest.mark.release
def test_it_is_small(tmp_path):
    stripped = tmp_path / "bonjour"
    subprocess.run(["strip", "-o", stripped, program()], check=True)
    assert stripped.stat().st_size <= SIZE_MAX


@pytest.mark.release
@pytest.mark.parametrize("capabilities", ["+net_raw", ""], ids=["the unit's", "none"])
def test_main_path_with_the_rights_of_the_unit(dual, capabilities):
    shutil.copy(program(), dual.router.sandbox.path(INSIDE))
    dual.router.program = INSIDE
    kept = f"-all,{capabilities}".strip(",")
    wrapper = [
        *("setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--groups=lp", "--no-new-privs"),
        *(f"--inh-caps={kept}", f"--ambient-caps={kept}", f"--bounding-set={kept}"),
        *("/usr/bin/python3", "-c", CONFINE, ",".join(sorted(allowed_calls()))),
        ",".join(setting("RestrictAddressFamilies")),
    ]
    dual.router.plug_in(0)
    daemon = dual.start(wrapper=wrapper)
    dual.wait_for_announcements()
    for family in ("ipv4", "ipv6"):
        assert has(dual.ask(query(HOST, "A", QU), family), HOST, "A")
        assert has(dual.ask(query(IPP, "SRV"), family, port=0), IPP, "SRV")
    dual.router.delete_bridge()
    since = dual.capture.mark()
    dual.add_bridge_again()
    dual.wait_for_record(HOST, "A", since)
    assert daemon.texts("stderr") == []


def test_debian_package_takes_the_place_of_the_other(tmp_path):
    found = {}
    for responder in ("classic", "standard"):
        build = tmp_path / responder
        command = ["cmake", "-S", ROOT, "-B", build, f"-DBONJOUR_RESPONDER={responder}"]
        subprocess.run(command, capture_output=True, check=True)
        text = (build / "CPackConfig.cmake").read_text()
        found[responder] = dict(re.findall(r'^set\(CPACK_(\w+) "([^"]*)"\)$', text, re.MULTILINE))
    for responder, name, other in (
        ("classic", "bonjour", "bonjour-standard"),
        ("standard", "bonjour-standard", "bonjour"),
    ):
        fields = found[responder]
        assert fields["PACKAGE_NAME"] == name
        assert fields["DEBIAN_PACKAGE_CONFLICTS"] == fields["DEBIAN_PACKAGE_REPLACES"] == other
    assert found["standard"]["DEBIAN_PACKAGE_PROVIDES"] == "bonjour"


def test_start_scripts_are_those_of_the_other_and_the_unit_has_a_drop_in(tmp_path):
    roots = {}
    for responder in ("classic", "standard"):
        build, root = tmp_path / f"build-{responder}", tmp_path / responder
        command = ["cmake", "-S", ROOT, "-B", build, f"-DBONJOUR_RESPONDER={responder}"]
        subprocess.run(command, capture_output=True, check=True)
        for component in ("sysvinit", "systemd"):
            subprocess.run(
                ["env", f"DESTDIR={root}", "cmake", "--install", build, "--component", component],
                capture_output=True,
                check=True,
            )
        roots[responder] = {
            str(path.relative_to(root)): path.read_text()
            for path in root.rglob("*")
            if path.is_file()
        }
    drop_in = "usr/lib/systemd/system/bonjour.service.d/standard.conf"
    assert roots["standard"].pop(drop_in) == SETTINGS[1].read_text()
    assert roots["standard"] == roots["classic"] != {}
