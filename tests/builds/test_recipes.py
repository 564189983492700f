"""What README and integration notes tell to type, typed in a checkout with a blank in its path."""

import re
import shutil

import building
import pytest

# All that a small machine has: CMake, make, a compiler with its binutils, a shell.
TOOLS = ["cmake", "make", "sh", "uname", "cc", "c++", "gcc", "g++", "gcc-ar", "gcc-nm"]
TOOLS += ["gcc-ranlib", "as", "ld", "ar", "nm", "ranlib", "objcopy", "objdump", "readelf", "strip"]


# Documents and headings, the first or second recipe there, its compiler and its build's folder.
RECIPES = [
    ("docs/integration.md", "Build", 0, "c++", "router"),
    pytest.param("docs/integration.md", "Build", 1, "g++", "mips", marks=pytest.mark.whole),
    pytest.param("README.md", "On a router", 0, "c++", "router", marks=pytest.mark.whole),
]
SDK = "/opt/sdk/bin/mips-openwrt-linux-"


def blocks(document, heading, language):
    """What stands in this language under the heading."""
    text = (building.ROOT / document).read_text()
    (section,) = re.findall(rf"^## {heading}\n(.*?)(?=^## |\Z)", text, re.M | re.S)
    return re.findall(rf"^```{language}\n(.*?)^```$", section, re.M | re.S)


@pytest.mark.seconds(10)
@pytest.mark.parametrize("document, heading, number, compiler, folder", RECIPES)
def test_compiler_and_make_alone_give_an_image_with_a_small_hardened_stripped_daemon(
    document, heading, number, compiler, folder, tmp_path
):
    tools, image = tmp_path / "tools", tmp_path / "image"
    tools.mkdir()
    for tool in TOOLS:
        (tools / tool).symlink_to(shutil.which(tool))
    (lines,) = blocks("docs/integration.md", "Build", "cmake")
    (tmp_path / "router.cmake").write_text(lines.replace(SDK, f"{tools}/"))
    checkout = building.copy_of_sources(tmp_path / "a checkout")
    commands = blocks(document, heading, "sh")[number].replace("/path/to", str(tmp_path))
    building.run("sh", "-eu", "-c", commands, directory=checkout, PATH=str(tools))
    # It touches no other build, and keeps the symbols of its own.
    assert [path.name for path in (checkout / "build").iterdir()] == [folder]
    build = checkout / "build" / folder
    assert " .symtab " in building.run("readelf", "-SW", build / "bonjour")
    for words in building.compiled_with(build).values():
        assert words[0] == str(tools / compiler)
        assert {"-Os", "-flto=auto", "-D_FORTIFY_SOURCE=2"} <= set(words)
    program = image / "usr/sbin/bonjour"
    assert building.needs(program) == ["libc.so.6"]
    # Its dynamic symbols, and no others.
    shown = building.run("readelf", "-hldsSW", program)
    assert " .symtab " not in shown
    pie = "Position-Independent Executable file"
    for trace in (pie, "GNU_RELRO", "BIND_NOW", "GNU_STACK .* RW ", "__stack_chk_fail"):
        assert re.search(trace, shown), trace
    assert (image / "etc/init.d/bonjour").exists()
