"""What `cmake --install` puts where, by component and by prefix."""

import filecmp
import re
import subprocess

import pytest
from lab.daemon import binary, stock_build
from responders import with_both
from small_system import DEFAULTS, SCRIPT, files, install

UNIT = "lib/systemd/system/bonjour.service"
STANDARD = f"usr/{UNIT}.d/standard.conf"
COMPONENTS = {
    "runtime": ["etc/default/bonjour", "usr/sbin/bonjour"],
    "sysvinit": ["etc/init.d/bonjour"],
    "systemd": [f"usr/{UNIT}", "usr/lib/udev/rules.d/70-bonjour.rules"],
    "manual": ["usr/share/man/man8/bonjour.8"],
}
STOCK_KERNEL = [
    f"usr/{UNIT}.d/stock-kernel.conf",
    "usr/lib/udev/rules.d/70-bonjour-printers.rules",
    "usr/sbin/bonjour-printers",
    "usr/share/bonjour/hotplug-usbmisc",
    "usr/share/bonjour/mdev.conf",
    "usr/share/man/man8/bonjour-printers.8",
]
PROGRAMS = ["usr/sbin/bonjour", "usr/sbin/bonjour-printers", "etc/init.d/bonjour"]


@pytest.mark.parametrize("component", [*COMPONENTS, "stock-kernel"])
def test_component_holds_its_files_and_no_other(component, tmp_path):
    build = stock_build() if component == "stock-kernel" else None
    install(tmp_path, "--component", component, build=build)
    assert sorted(files(tmp_path)) == {**COMPONENTS, "stock-kernel": STOCK_KERNEL}[component]


def test_all_components_are_installed_unless_one_is_chosen(tmp_path):
    """Beside the daemon and its manual the responders differ by a drop-in of the unit."""
    for responder, more in (("classic", []), ("standard", [STANDARD])):
        root = tmp_path / responder
        install(root, build=stock_build(responder))
        names = sum(COMPONENTS.values(), STOCK_KERNEL + more)
        assert files(root) == {name: 0o755 if name in PROGRAMS else 0o644 for name in names}
    for name in {*files(tmp_path / "classic")} - {"usr/sbin/bonjour", *COMPONENTS["manual"]}:
        assert filecmp.cmp(tmp_path / "classic" / name, root / name, shallow=False), name


@pytest.mark.parametrize("prefix", ["/usr/local", "/opt/print services"])
def test_files_name_the_programs_by_their_prefix(prefix, tmp_path):
    install(tmp_path, prefix=prefix, build=stock_build())
    below = tmp_path / prefix[1:]
    assert (below / "sbin/bonjour").exists()
    program = f"{prefix}/sbin/bonjour-printers"
    assert (tmp_path / program[1:]).exists()
    named = {
        tmp_path / SCRIPT[1:]: f'\nDAEMON="{prefix}/sbin/bonjour"\n',
        below / UNIT: f'\nExecStart="{prefix}/sbin/bonjour" $MODEL\n',
        below / f"{UNIT}.d/stock-kernel.conf": f'ExecStartPre=-+"{program}" update\n',
        below / "lib/udev/rules.d/70-bonjour-printers.rules": f"RUN+=\"'{program}' update\"\n",
        below / "share/bonjour/mdev.conf": f' *"{program}" update\n',
        below / "share/bonjour/hotplug-usbmisc": f' "{program}" update ;;\n',
    }
    for path, text in named.items():
        assert path.read_text().count(text) == 1, path
    assert f'\nPRINTERS="{program}"\n' in (tmp_path / SCRIPT[1:]).read_text()


def test_prefix_may_be_relative_to_where_it_is_installed_from(tmp_path):
    command = ["cmake", "--install", binary().parent, "--prefix", "here", "--component", "systemd"]
    subprocess.run(command, cwd=tmp_path, check=True, stdout=subprocess.DEVNULL)
    unit = (tmp_path / "here" / UNIT).read_text()
    assert f'ExecStart="{tmp_path}/here/sbin/bonjour" $MODEL\n' in unit


def test_limits_of_the_unit_are_those_of_the_init_script(tmp_path):
    install(tmp_path)
    settings = (tmp_path / DEFAULTS).read_text()
    unit = (tmp_path / "usr" / UNIT).read_text()
    kibibytes = {"K": 1, "M": 1024}
    for setting, limit in (("MEMORY_LIMIT", "LimitAS"), ("STACK_LIMIT", "LimitSTACK")):
        number, unit_of_it = re.search(rf"^{limit}=(\d+)([KM])$", unit, re.MULTILINE).groups()
        assert f"\n{setting}={int(number) * kibibytes[unit_of_it]}\n" in settings
    (stop,) = re.findall(r"^TimeoutStopSec=(\d+)$", unit, re.MULTILINE)
    assert f"\nSTOP_SECONDS={stop}\n" in (tmp_path / SCRIPT[1:]).read_text()


@with_both
@pytest.mark.parametrize("prefix", ["/usr", "/usr/local"])
def test_systemd_finds_no_fault_in_the_unit(prefix, tmp_path, responder):
    install(tmp_path, prefix=prefix, build=stock_build(responder))
    units = tmp_path / "usr/lib/systemd/system"
    units.mkdir(parents=True, exist_ok=True)
    for target in ("basic", "network", "shutdown", "sysinit"):
        (units / f"{target}.target").write_text(f"[Unit]\nDescription={target}\n")
    command = ["systemd-analyze", "verify", "--man=no", f"--root={tmp_path}", f"{prefix}/{UNIT}"]
    verified = subprocess.run(command, capture_output=True, text=True, check=False)
    assert (verified.returncode, verified.stdout, verified.stderr) == (0, "", "")
