"""What `cmake --install` puts where, by component and by prefix."""

import re
import stat
import subprocess

import pytest
from lab.daemon import binary
from small_system import DEFAULTS, SCRIPT, SmallSystem, copy_program, install, lay_out

COMPONENTS = {
    "runtime": ["etc/default/bonjour", "usr/sbin/bonjour"],
    "sysvinit": ["etc/init.d/bonjour"],
    "systemd": [
        "usr/lib/systemd/system/bonjour.service",
        "usr/lib/udev/rules.d/70-bonjour.rules",
    ],
    "manual": ["usr/share/man/man8/bonjour.8"],
}
STOCK_KERNEL = [
    "usr/lib/systemd/system/bonjour.service.d/stock-kernel.conf",
    "usr/lib/udev/rules.d/70-bonjour-printers.rules",
    "usr/sbin/bonjour-printers",
    "usr/share/bonjour/hotplug-usbmisc",
    "usr/share/bonjour/mdev.conf",
    "usr/share/man/man8/bonjour-printers.8",
]
PROGRAMS = ["usr/sbin/bonjour", "usr/sbin/bonjour-printers", "etc/init.d/bonjour"]
UNIT = "lib/systemd/system/bonjour.service"
DROP_IN = f"{UNIT}.d/stock-kernel.conf"


def files(root):
    return sorted(str(path.relative_to(root)) for path in root.rglob("*") if not path.is_dir())


@pytest.mark.parametrize("component", COMPONENTS)
def test_component_holds_its_files_and_no_other(component, tmp_path):
    install(tmp_path, "--component", component)
    assert files(tmp_path) == COMPONENTS[component]


def test_all_components_are_installed_unless_one_is_chosen(tmp_path):
    install(tmp_path)
    assert files(tmp_path) == sorted(sum(COMPONENTS.values(), []))


def test_for_a_stock_kernel_there_is_one_component_more(tmp_path):
    install(tmp_path / "one", "--component", "stock-kernel", stock_kernel=True)
    assert files(tmp_path / "one") == STOCK_KERNEL
    install(tmp_path / "all", stock_kernel=True)
    assert files(tmp_path / "all") == sorted(sum(COMPONENTS.values(), STOCK_KERNEL))


def test_programs_can_be_executed_and_other_files_cannot(tmp_path):
    install(tmp_path, stock_kernel=True)
    for name in files(tmp_path):
        mode = 0o755 if name in PROGRAMS else 0o644
        assert stat.S_IMODE((tmp_path / name).stat().st_mode) == mode, name


@pytest.mark.parametrize("prefix", ["/usr/local", "/opt/print services"])
def test_start_scripts_name_the_daemon_by_its_prefix(prefix, tmp_path):
    install(tmp_path, prefix=prefix)
    assert (tmp_path / prefix[1:] / "sbin/bonjour").exists()
    script = (tmp_path / SCRIPT[1:]).read_text()
    assert re.findall(r"^DAEMON=.*", script, re.MULTILINE) == [f'DAEMON="{prefix}/sbin/bonjour"']
    unit = (tmp_path / prefix[1:] / UNIT).read_text()
    assert re.findall(r"^ExecStart=.*", unit, re.MULTILINE) == [
        f'ExecStart="{prefix}/sbin/bonjour" $MODEL'
    ]


@pytest.mark.parametrize("prefix", ["/usr/local", "/opt/print services"])
def test_what_tells_of_printers_is_named_by_its_prefix(prefix, tmp_path):
    install(tmp_path, prefix=prefix, stock_kernel=True)
    below = tmp_path / prefix[1:]
    program = f"{prefix}/sbin/bonjour-printers"
    assert (tmp_path / program[1:]).exists()
    named = {
        tmp_path / SCRIPT[1:]: f'PRINTERS="{program}"\n',
        below / DROP_IN: f'ExecStartPre=-+"{program}" update\n',
        below / "lib/udev/rules.d/70-bonjour-printers.rules": f"RUN+=\"'{program}' update\"\n",
        below / "share/bonjour/mdev.conf": f' *"{program}" update\n',
        below / "share/bonjour/hotplug-usbmisc": f' "{program}" update ;;\n',
    }
    for path, text in named.items():
        assert text in path.read_text(), path


def test_prefix_may_be_relative_to_where_it_is_installed_from(tmp_path):
    subprocess.run(
        ["cmake", "--install", binary().parent, "--prefix", "here", "--component", "systemd"],
        cwd=tmp_path,
        check=True,
        stdout=subprocess.DEVNULL,
    )
    unit = (tmp_path / "here" / UNIT).read_text()
    assert f'ExecStart="{tmp_path}/here/sbin/bonjour" $MODEL\n' in unit


def test_init_script_starts_the_daemon_from_another_prefix(tmp_path, sandbox):
    root = tmp_path / "root"
    lay_out(root)
    install(root, prefix="/usr/local")
    # What stands in for the daemon does nothing.
    copy_program("/bin/sleep", root, "usr/local/sbin/bonjour")
    (root / DEFAULTS).write_text("MODEL=3600\n")
    system = SmallSystem(root, sandbox)
    assert system.script("start") == 0
    assert system.processes()[system.pid] == ["/usr/local/sbin/bonjour", "3600"]


def test_limits_of_the_unit_are_those_of_the_init_script(tmp_path):
    install(tmp_path)
    settings = dict(
        line.split("=", 1)
        for line in (tmp_path / DEFAULTS).read_text().splitlines()
        if not line.startswith("#") and line
    )
    unit = (tmp_path / "usr" / UNIT).read_text()
    kibibytes = {"K": 1, "M": 1024}
    for setting, limit in (("MEMORY_LIMIT", "LimitAS"), ("STACK_LIMIT", "LimitSTACK")):
        number, unit_of_it = re.search(rf"^{limit}=(\d+)([KM])$", unit, re.MULTILINE).groups()
        assert int(number) * kibibytes[unit_of_it] == int(settings[setting]), setting


@pytest.mark.parametrize("prefix", ["/usr", "/usr/local"])
def test_systemd_finds_no_fault_in_the_unit(prefix, tmp_path):
    install(tmp_path, prefix=prefix, stock_kernel=True)
    units = tmp_path / "usr/lib/systemd/system"
    units.mkdir(parents=True, exist_ok=True)
    for target in ("basic", "network", "shutdown", "sysinit"):
        (units / f"{target}.target").write_text(f"[Unit]\nDescription={target}\n")
    verified = subprocess.run(
        ["systemd-analyze", "verify", "--man=no", f"--root={tmp_path}", f"{prefix}/{UNIT}"],
        capture_output=True,
        text=True,
        check=False,
    )
    assert (verified.returncode, verified.stdout, verified.stderr) == (0, "", "")
