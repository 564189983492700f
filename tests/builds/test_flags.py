"""Flags from outside, as build systems pass them, and those that the project adds."""

import building
import pytest

NOT_ACROSS_FILES = "-DCMAKE_INTERPROCEDURAL_OPTIMIZATION=OFF"


def test_level_of_checked_calls_that_is_given_stands(tmp_path):
    """Without one it is 2, as the recipes' test holds."""
    building.configure(tmp_path, NOT_ACROSS_FILES, CXXFLAGS="-D_FORTIFY_SOURCE=3")
    for words in building.compiled_with(tmp_path).values():
        levels = [word for word in words if "_FORTIFY_SOURCE" in word]
        assert levels[-1] == "-D_FORTIFY_SOURCE=3"


# What toolchain files say, in the manner of Buildroot, of Buildroot with debugging switched on, and
# of OpenEmbedded, which names no build type.
RELEASE = """
set(CMAKE_BUILD_TYPE Release CACHE STRING "")
set(CMAKE_CXX_FLAGS_RELEASE " -DNDEBUG" CACHE STRING "")
"""
DEBUG = """
set(CMAKE_BUILD_TYPE Debug CACHE STRING "")
set(CMAKE_CXX_FLAGS_DEBUG "" CACHE STRING "")
"""


@pytest.mark.parametrize(
    "lines, build_type, across_files",
    [(RELEASE, "Release", True), (DEBUG, "Debug", False), ("", "", True)],
    ids=["release", "debug", "flags_alone"],
)
def test_build_type_and_flags_of_a_toolchain_file_stand(
    lines, build_type, across_files, tmp_path
):
    toolchain = tmp_path / "toolchain.cmake"
    toolchain.write_text(lines + 'set(CMAKE_CXX_FLAGS "-O2 -g0" CACHE STRING "")\n')
    build = tmp_path / "build"
    for _ in ("first", "again"):
        building.configure(build, f"-DCMAKE_TOOLCHAIN_FILE={toolchain}")
        assert building.cached(build)["CMAKE_BUILD_TYPE"] == build_type
        for words in building.compiled_with(build).values():
            assert [word for word in words if word.startswith("-O")] == ["-O2"]
            assert ("-flto=auto" in words) == across_files


def test_warnings_are_errors_in_the_presets_for_development_alone(tmp_path):
    for preset, strict in (("release", True), ("debug", True), ("router", False)):
        shown = building.run("cmake", "--preset", preset, "-N")
        assert ('CMAKE_COMPILE_WARNING_AS_ERROR="ON"' in shown) == strict, preset


def test_unoptimised_build_has_neither_checked_calls_nor_errors_for_warnings(tmp_path):
    building.configure(tmp_path, building.UNOPTIMISED)
    for words in building.compiled_with(tmp_path).values():
        assert not [word for word in words if "_FORTIFY_SOURCE" in word or word == "-Werror"]
