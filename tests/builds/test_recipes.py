"""What README and integration notes tell to type, typed in a checkout with a blank in its path."""

import pathlib
import re
import shutil

import building
import pytest

# All that a small machine has: CMake, make, a compiler with its binutils, a shell.
TOOLS = ["cmake", "make", "sh", "uname", "cc", "c++", "gcc", "g++", "gcc-ar", "gcc-nm"]
TOOLS += ["gcc-ranlib", "as", "ld", "ar", "nm", "ranlib", "objcopy", "objdump", "readelf", "strip"]


@pytest.fixture
def checkout(tmp_path):
    return building.copy_of_sources(tmp_path / "a checkout")


@pytest.fixture
def image(tmp_path):
    return tmp_path / "image"


def blocks(document, heading, language):
    """What stands in this language under the heading."""
    text = (building.ROOT / document).read_text()
    (section,) = re.findall(rf"^## {heading}\n(.*?)(?=^## |\Z)", text, re.M | re.S)
    return re.findall(rf"^```{language}\n(.*?)^```$", section, re.M | re.S)


def follow(commands, checkout, path=None, **replaced):
    """Types the commands, with our own paths in place of those of the examples."""
    for example, ours in replaced.items():
        assert f"/path/to/{example}" in commands
        commands = commands.replace(f"/path/to/{example}", str(ours))
    environment = {"PATH": str(path)} if path else {}
    return building.run("sh", "-eu", "-c", commands, directory=checkout, **environment)


@pytest.mark.seconds(10)
@pytest.mark.parametrize(
    "document, heading",
    [
        ("docs/integration.md", "Build"),
        pytest.param("README.md", "On a router", marks=pytest.mark.whole),
    ],
)
def test_compiler_and_make_alone_give_an_image_with_a_small_hardened_stripped_daemon(
    document, heading, checkout, image, tmp_path
):
    tools = tmp_path / "tools"
    tools.mkdir()
    for tool in TOOLS:
        (tools / tool).symlink_to(shutil.which(tool))
    follow(blocks(document, heading, "sh")[0], checkout, path=tools, image=image)
    # It touches no other build, and keeps the symbols of its own.
    assert [path.name for path in (checkout / "build").iterdir()] == ["router"]
    build = checkout / "build/router"
    assert " .symtab " in building.run("readelf", "-SW", build / "bonjour")
    for words in building.compiled_with(build).values():
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


@pytest.mark.whole
def test_notes_give_the_daemon_for_another_cpu(checkout, image, tmp_path):
    (lines,) = blocks("docs/integration.md", "Build", "cmake")
    sdk = "/opt/sdk/bin/mips-openwrt-linux-"
    assert sdk in lines
    toolchain = tmp_path / "router.cmake"
    toolchain.write_text(lines.replace(sdk, f"{pathlib.Path(shutil.which('gcc')).parent}/"))
    _, other = blocks("docs/integration.md", "Build", "sh")
    follow(other, checkout, **{"image": image, "router.cmake": toolchain})
    assert building.cached(checkout / "build/mips")["CMAKE_TOOLCHAIN_FILE"] == str(toolchain)
    assert building.needs(image / "usr/sbin/bonjour") == ["libc.so.6"]
