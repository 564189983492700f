"""Flags from outside, as build systems pass them, and those that the project adds."""

import building
import pytest

NOT_ACROSS_FILES = "-DCMAKE_INTERPROCEDURAL_OPTIMIZATION=OFF"
FORTIFY = "-D_FORTIFY_SOURCE="

# What packages of firmware and of distributions are compiled and linked with.
COMPILE = [
    f"-Os -pipe -march=x86-64-v2 -fno-caller-saves -fno-plt -Wdate-time -Wformat"
    f" -Werror=format-security {FORTIFY}1 -fPIC",
    f"-O2 -g3 -flto=auto -ffat-lto-objects -fstack-clash-protection -fcf-protection -Wdate-time"
    f" {FORTIFY}3 -D_LARGEFILE64_SOURCE -D_FILE_OFFSET_BITS=64",
]
LINK = ["-fPIC -znow -zrelro", "-flto=auto -Wl,-O1,--hash-style=gnu,--as-needed,-z,relro,-z,now"]


@pytest.mark.seconds(10)
@pytest.mark.parametrize(
    "compile_flags, link_flags",
    [
        pytest.param(COMPILE[0], LINK[0], id="small", marks=pytest.mark.whole),
        pytest.param(COMPILE[1], LINK[1], id="hardened"),
    ],
)
def test_daemon_is_built_without_a_warning(compile_flags, link_flags, tmp_path):
    printed = building.build(
        tmp_path, CFLAGS=compile_flags, CXXFLAGS=compile_flags, LDFLAGS=link_flags
    )
    assert "warning" not in printed
    assert building.needs(tmp_path / "bonjour") == ["libc.so.6"]


@pytest.mark.parametrize("given, level", [("", 2), ("3", 3)])
def test_level_of_checked_calls_is_the_one_given_or_2(given, level, tmp_path):
    flags = f"{FORTIFY}{given}" if given else ""
    building.configure(tmp_path, NOT_ACROSS_FILES, CXXFLAGS=flags)
    for words in building.compiled_with(tmp_path).values():
        levels = [word for word in words if "_FORTIFY_SOURCE" in word]
        assert levels[-1] == f"{FORTIFY}{level}"
        assert len(levels) == 1 or levels[-2] == "-U_FORTIFY_SOURCE"


def test_unoptimised_build_has_no_checked_calls(tmp_path):
    building.configure(tmp_path, building.UNOPTIMISED)
    for words in building.compiled_with(tmp_path).values():
        assert not [word for word in words if "_FORTIFY_SOURCE" in word]


def test_warnings_are_errors_in_the_presets_for_development_alone(tmp_path):
    for preset, strict in (("release", True), ("debug", True), ("router", False)):
        shown = building.run("cmake", "--preset", preset, "-N")
        assert ('CMAKE_COMPILE_WARNING_AS_ERROR="ON"' in shown) == strict, preset
    building.configure(tmp_path, building.UNOPTIMISED)
    assert "-Werror" not in (tmp_path / "compile_commands.json").read_text()
