"""The packages for OpenWrt, Buildroot and Yocto, as far as they can be tried without these: their
Makefiles are evaluated by GNU make with the few macros that they use written down here, their shell
parts run by BusyBox, and what they install is held against `cmake --install`."""

import hashlib
import pathlib
import re
import shlex
import subprocess

import pytest
from lab.daemon import stock_build
from responders import with_both
from small_system import SmallSystem, files, install, lay_out, write_program

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
OPENWRT = ROOT / "packaging/openwrt/bonjour"
BUILDROOT = ROOT / "packaging/buildroot"
RECIPES = ROOT / "packaging/yocto/recipes-connectivity/bonjour"
PROJECT = (ROOT / "CMakeLists.txt").read_text()
VERSION = re.search(r"^project\(bonjour VERSION (\S+)", PROJECT, re.MULTILINE)[1]


def run(*command):
    """What the command prints."""
    status, printed = subprocess.getstatusoutput(shlex.join(map(str, command)))
    assert status == 0, printed
    return printed


def value(make, variable, *words):
    """Of a variable of the package's Makefile, which the macros' target shows."""
    return make("show", f"SHOWN={variable}", *words).strip()


# OpenWrt

# A package of one variant, whose CMake project is in PKG_BUILD_DIR, configured and installed with
# Ninja, with flags as OpenWrt and Buildroot have them on devices.
OPENWRT_MACROS = r"""
INCLUDE_DIR := $(TOPDIR)
PKG_BUILD_DIR = $(TOPDIR)/build_dir/$(PKG_NAME)-$(PKG_VERSION)
PKG_INSTALL_DIR = $(PKG_BUILD_DIR)/ipkg-install
INSTALL_DIR := install -d -m0755
INSTALL_BIN := install -m0755
INSTALL_DATA := install -m0644
INSTALL_CONF := install -m0600
TARGET_CFLAGS := -Os -pipe -march=native -fno-caller-saves -fno-plt -fstack-protector \
  -D_FORTIFY_SOURCE=1 -fPIC -Wdate-time -Wformat -Werror=format-security -Wl,-z,now -Wl,-z,relro

define BuildPackage
$(if $(findstring VARIANT:=$(BUILD_VARIANT),$(value Package/$(1))),$(eval $(call Build,$(1))))
endef
define Build
$(call Package/$(1))
prepare: ; $$(Build/Prepare)
configure: ; $$(Build/Configure)
compile: ; $$(Build/Compile)
install: ; $$(Build/Install)
package: ; $$(call Package/$(1)/install,$$(TOPDIR)/package)
show: ; @: $$(info $$($$(SHOWN)))
endef

define Build/Configure
cd $(PKG_BUILD_DIR) && cmake -G Ninja -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_C_FLAGS_RELEASE=-DNDEBUG -DCMAKE_CXX_FLAGS_RELEASE=-DNDEBUG \
  -DCMAKE_C_FLAGS="$(TARGET_CFLAGS)" -DCMAKE_CXX_FLAGS="$(TARGET_CFLAGS)" $(CMAKE_OPTIONS) .
endef
define Build/Compile
cmake --build $(PKG_BUILD_DIR)
endef
define Build/Install
$(if $(PKG_INSTALL),DESTDIR=$(PKG_INSTALL_DIR) cmake --build $(PKG_BUILD_DIR) --target install)
endef
"""


@pytest.fixture
def openwrt(tmp_path, responder):
    """Makes a target of that responder's package in a tree at `tmp_path`; what is printed."""
    for name, text in (("rules", OPENWRT_MACROS), ("package", ""), ("cmake", "")):
        (tmp_path / f"{name}.mk").write_text(text)
    quiet = ["make", "-s", "--no-print-directory", "-C", OPENWRT]
    return lambda *words: run(*quiet, f"TOPDIR={tmp_path}", f"BUILD_VARIANT={responder}", *words)


@pytest.mark.parametrize(
    "responder, package, others",
    [("classic", "bonjour", ""), ("standard", "bonjour-standard", "bonjour")],
)
def test_openwrt_package_says_what_it_is(openwrt, responder, package, others):
    assert value(openwrt, "PKG_NAME") == "bonjour"
    assert value(openwrt, "PKG_VERSION") == VERSION
    assert value(openwrt, "CATEGORY") == "Network"
    assert value(openwrt, "DEPENDS") == "+kmod-usb-printer"
    assert value(openwrt, "PROVIDES") == value(openwrt, "CONFLICTS") == others
    assert value(openwrt, f"Package/{package}/conffiles") == "/etc/default/bonjour"
    assert (ROOT / value(openwrt, "PKG_LICENSE_FILES")).exists()


@pytest.mark.seconds(30)
@pytest.mark.parametrize(
    "responder", ["standard", pytest.param("classic", marks=pytest.mark.whole)]
)
def test_openwrt_package_is_built_of_the_tree_and_holds_the_daemon(openwrt, responder, tmp_path):
    printed = openwrt("prepare", "configure", "compile", "install", "package")
    assert "were not used" not in printed and "warning" not in printed
    sources, package = tmp_path / f"build_dir/bonjour-{VERSION}", tmp_path / "package"
    assert not (sources / "build").exists() and not (sources / ".git").exists()
    # Made for one prefix at install time, and gone again.
    assert list((sources / "packaging").glob("with-path-*")) == []
    assert files(package) == {
        "usr/sbin/bonjour": 0o755,
        "usr/sbin/bonjour-printers": 0o755,
        "etc/default/bonjour": 0o600,
        "etc/hotplug.d/usbmisc/bonjour": 0o644,
        "etc/init.d/bonjour": 0o755,
    }
    installed = sources / "ipkg-install"
    for name in ("usr/sbin/bonjour", "usr/sbin/bonjour-printers", "etc/default/bonjour"):
        assert (package / name).read_bytes() == (installed / name).read_bytes(), name
    hotplug = package / "etc/hotplug.d/usbmisc/bonjour"
    assert hotplug.read_bytes() == (installed / "usr/share/bonjour/hotplug-usbmisc").read_bytes()
    is_standard = b"AF_NETLINK" in (package / "usr/sbin/bonjour").read_bytes()
    assert is_standard == (responder == "standard")
    script = (package / "etc/init.d/bonjour").read_text()
    assert script.startswith("#!/bin/sh /etc/rc.common\n")


# procd's functions say how they are called; rc.common calls a function of the script.
RC_COMMON = r"""#!/bin/sh
said() { printf '%s' "$1"; shift; for word; do printf ' [%s]' "$word"; done; echo; }
for name in open_instance set_param close_instance add_reload_interface_trigger; do
  eval "procd_$name() { said $name \"\$@\"; }"
done
. "$1"
echo "$USE_PROCD $START $STOP"
"$2"
"""


@pytest.fixture
def procd(tmp_path, sandbox):
    """A root with procd's script, and with settings."""
    root = tmp_path / "root"
    lay_out(root)
    write_program(root / "etc/rc.common", RC_COMMON)
    write_program(root / "etc/init.d/bonjour", (OPENWRT / "files/bonjour.init").read_text())
    printers = '#!/bin/sh\necho "bonjour-printers [$*]"\n'
    write_program(root / "usr/sbin/bonjour-printers", printers)
    settings = "MODEL=GLXE4700\nMEMORY_LIMIT=65536\nSTACK_LIMIT=256\nGLIBC_TUNABLES=a.b=0\n"
    (root / "etc/default").mkdir()
    (root / "etc/default/bonjour").write_text(settings)
    return SmallSystem(root, sandbox)


def calls_of(procd, function):
    """What a function of the script calls, a line each."""
    ended = procd.run("/etc/init.d/bonjour", function)
    assert (ended.returncode, ended.stderr) == (0, "")
    return ended.stdout.splitlines()


def test_procd_starts_the_daemon_with_its_settings_or_without_any(procd):
    settings = [
        "set_param [env] [GLIBC_TUNABLES=a.b=0]",
        "set_param [limits] [as=67108864 67108864] [stack=262144 262144]",
    ]
    calls = calls_of(procd, "start_service")
    assert calls == [
        "1 95 05",
        "bonjour-printers [update]",
        "open_instance",
        "set_param [command] [/usr/sbin/bonjour] [GLXE4700]",
        *settings,
        "set_param [respawn] [3600] [5] [0]",
        "set_param [netdev] [br0]",
        "set_param [stdout] [1]",
        "set_param [stderr] [1]",
        "set_param [term_timeout] [5]",
        "close_instance",
    ]
    (procd.root / "etc/default/bonjour").unlink()
    without = [call.replace(" [GLXE4700]", "") for call in calls if call not in settings]
    assert calls_of(procd, "start_service") == without


def test_procd_looks_at_the_bridge_when_the_lan_interface_changes(procd):
    assert calls_of(procd, "service_triggers") == [
        "1 95 05",
        "add_reload_interface_trigger [lan]",
    ]


# Buildroot

# A package is built in $(@D), and its macros are run with $(TARGET_DIR). Only one that says that it
# is built with CMake can be asked.
BUILDROOT_MAKEFILE = r"""
SED = sed -i -e
qstrip = $(strip $(subst ",,$(1)))
cmake-package = show: ; @: $$(info $$($$(SHOWN)))
KCONFIG_ENABLE_OPT = $(1)
BR2_CMAKE = cmake
include $(BR2_EXTERNAL_BONJOUR_PATH)/external.mk
$(D)/target: ; @$(BONJOUR_INSTALL_TARGET_CMDS)
$(D)/sysv: ; @$(BONJOUR_INSTALL_INIT_SYSV)
$(D)/systemd: ; @$(BONJOUR_INSTALL_INIT_SYSTEMD)
"""


@pytest.fixture
def buildroot(tmp_path, responder):
    """Makes a target of the package's Makefile, with that responder's build; what is printed."""
    (tmp_path / "Makefile").write_text(BUILDROOT_MAKEFILE)
    build = stock_build(responder)

    def make(*words):
        return run(
            *("make", "-s", "-f", tmp_path / "Makefile", f"D={build}"),
            *(f"TARGET_DIR={tmp_path}/target", 'BR2_PACKAGE_BONJOUR_MODEL="GLXE4700"'),
            *(f"BR2_EXTERNAL_BONJOUR_PATH={BUILDROOT}", *words),
        )

    return make


def test_buildroot_package_says_what_it_is(buildroot):
    assert value(buildroot, "BONJOUR_VERSION") == VERSION
    assert pathlib.Path(value(buildroot, "BONJOUR_SITE")).resolve() == ROOT
    assert value(buildroot, "BONJOUR_SITE_METHOD") == "local"
    assert (ROOT / value(buildroot, "BONJOUR_LICENSE_FILES")).exists()
    # The name in the paths.
    assert (BUILDROOT / "external.desc").read_text().startswith("name: BONJOUR\ndesc: ")
    # Asked of the kernel: its driver, and multicast.
    assert value(buildroot, "BONJOUR_LINUX_CONFIG_FIXUPS").split() == [
        *("CONFIG_NET", "CONFIG_INET", "CONFIG_IP_MULTICAST"),
        *("CONFIG_USB_SUPPORT", "CONFIG_USB", "CONFIG_USB_PRINTER"),
    ]


@with_both
@pytest.mark.parametrize(
    "init, component, link",
    [("sysv", "sysvinit", {"etc/init.d/S95bonjour": "bonjour"}), ("systemd", "systemd", {})],
)
def test_buildroot_package_holds_what_cmake_installs(
    buildroot, tmp_path, responder, init, component, link
):
    build = stock_build(responder)
    buildroot(build / "target", build / init)
    target, whole = tmp_path / "target", tmp_path / "whole"
    for name in ("runtime", "stock-kernel", component):
        install(whole, "--component", name, build=build)
    assert files(target) == {**files(whole), **link}
    # With the model as it is set.
    ours = (ROOT / "packaging/bonjour.default").read_text()
    set_up = (target / "etc/default/bonjour").read_text()
    assert set_up == ours.replace("MODEL=T5140\n", "MODEL=GLXE4700\n") != ours


PACKAGE = ["", "_CLASSIC", "_STANDARD", "_MODEL"]
TOOLCHAIN = ["BR2_INSTALL_LIBSTDCPP", "BR2_TOOLCHAIN_GCC_AT_LEAST_8", "BR2_TOOLCHAIN_HAS_THREADS"]


@pytest.mark.parametrize("missing", [None, *TOOLCHAIN])
def test_buildroot_offers_the_package_or_says_what_the_toolchain_lacks(
    tmp_path, monkeypatch, missing
):
    # Tests are listed where nothing but the build's packages is installed.
    import kconfiglib

    monkeypatch.setenv("BR2_EXTERNAL_BONJOUR_PATH", str(BUILDROOT))
    symbols = "".join(f'config {name}\n\tbool "{name}"\n' for name in TOOLCHAIN)
    top = tmp_path / "Config.in"
    top.write_text(symbols + 'source "$BR2_EXTERNAL_BONJOUR_PATH/Config.in"\n')
    menu = kconfiglib.Kconfig(top, warn_to_stderr=False)
    assert menu.warnings == []
    for name in {*TOOLCHAIN, "BR2_PACKAGE_BONJOUR"} - {missing}:
        menu.syms[name].set_value("y")
    values = [menu.syms[f"BR2_PACKAGE_BONJOUR{name}"].str_value for name in PACKAGE]
    assert values == (["n", "n", "n", ""] if missing else ["y", "y", "n", "T5140"])
    (comment,) = menu.comments
    assert bool(kconfiglib.expr_value(comment.dep)) == bool(missing)


@pytest.mark.parametrize("set_to, chosen", [("", "classic"), ("y", "standard")])
def test_buildroot_builds_the_responder_that_was_chosen(buildroot, set_to, chosen):
    options = f"-DBONJOUR_STOCK_KERNEL=ON -DBONJOUR_RESPONDER={chosen}"
    setting = f"BR2_PACKAGE_BONJOUR_STANDARD={set_to}"
    assert value(buildroot, "BONJOUR_CONF_OPTS", setting) == options


# Yocto

SERIES = ["kirkstone", "langdale", "mickledore", "nanbield"]  # 4.0 to 4.3
SERIES += ["scarthgap", "styhead", "walnascar", "whinlatter"]  # 5.0 to 5.3
SERIES += ["wrynose", "blacksail"]  # 6.0, 6.1


@pytest.fixture
def recipe():
    """The recipe's variables, and the classes that it inherits."""
    (path,) = RECIPES.glob("*.bb")
    assert path.name == f"bonjour_{VERSION}.bb"
    text = path.read_text()
    found = dict(re.findall(r'^(\S+) (?:\?\?)?= "(.*)"$', text, re.MULTILINE))
    found["inherit"] = re.search(r"^inherit (.*)$", text, re.MULTILINE)[1].split()
    for line in text.splitlines():
        assert re.match(r'#|inherit |\S+ (\?\?)?= ".*"$|$', line), line
    return found


@pytest.mark.parametrize("configuration", ["", "standard"])
def test_yocto_recipe_installs_what_it_names(recipe, tmp_path, configuration):
    build = tmp_path / "build"
    root = tmp_path / "root"
    units = "/lib/systemd/system"

    def resolved(variable):
        text = recipe[variable].replace("${systemd_system_unitdir}", units)
        return text.replace("${prefix}", "/usr").replace("${datadir}", "/usr/share").split()

    assert recipe["PACKAGECONFIG"] == ""
    options = recipe["PACKAGECONFIG[standard]"].split(",")
    # As the class cmake passes them.
    options = [*resolved("EXTRA_OECMAKE"), options[0 if configuration else 1]]
    options += ["-DCMAKE_INSTALL_PREFIX:PATH=/usr", "-DCMAKE_INSTALL_SBINDIR:PATH=sbin"]
    said = run("cmake", "-G", "Ninja", "-S", ROOT, "-B", build, *options)
    assert "were not used" not in said
    for component in ("sysvinit", "systemd", "stock-kernel"):
        install(root, "--component", component, build=build)
    found = [f"/{name}" for name in files(root)]
    unit = f"{units}/{recipe['SYSTEMD_SERVICE:${PN}']}"
    assert unit in found and f"/etc/init.d/{recipe['INITSCRIPT_NAME']}" in found
    assert (f"{unit}.d/standard.conf" in found) == bool(configuration)
    # The others are in the package without being named.
    named = (*resolved("FILES:${PN}:append"), "/etc", "/usr/sbin", "/usr/share/man")
    assert [name for name in found if not name.startswith(named)] == []
    install(tmp_path / "runtime", "--component", "runtime")
    kept = recipe["CONFFILES:${PN}"].replace("${sysconfdir}", "etc")
    assert kept in files(tmp_path / "runtime")


def test_yocto_recipe_builds_the_tree_around_it(recipe):
    assert sorted(recipe["inherit"]) == ["cmake", "externalsrc", "systemd", "update-rc.d"]
    (up,) = re.findall(r"d\.getVar\('THISDIR'\) \+ '/([./]+)'", recipe["EXTERNALSRC"])
    assert (RECIPES / up).resolve() == ROOT
    # Links to the build, which would be left in the tree.
    assert recipe["EXTERNALSRC_SYMLINKS"] == ""
    assert recipe["INITSCRIPT_PARAMS"] == "defaults 95 05"
    # Its file grants no licence.
    reference = "bonjour-CLOSED"
    assert recipe["LICENSE"] == f"LicenseRef-{reference}"
    for flag in (reference, f"LicenseRef-{reference}"):
        assert recipe[f"NO_GENERIC_LICENSE[{flag}]"] == "LICENSE"
    checksum = hashlib.md5((ROOT / "LICENSE").read_bytes()).hexdigest()
    assert recipe["LIC_FILES_CHKSUM"] == f"file://LICENSE;md5={checksum}"


def test_yocto_layer_is_for_every_series_since_4_0_and_finds_the_recipe():
    layer = ROOT / "packaging/yocto"
    configuration = (layer / "conf/layer.conf").read_text()
    lines = re.findall(r'^LAYERSERIES_COMPAT_bonjour \+?= "(.*)"$', configuration, re.MULTILINE)
    assert " ".join(lines).split() == SERIES
    (pattern,) = re.findall(r'^BBFILES \+= "\$\{LAYERDIR\}/(.*)"$', configuration, re.MULTILINE)
    assert list(layer.glob(pattern)) == list(RECIPES.glob("*.bb"))
