"""The daemon as a folder of somebody else's CMake project."""

import building
import pytest

PROJECT = """
cmake_minimum_required(VERSION 3.16)
project(firmware LANGUAGES C CXX)
set(CMAKE_CXX_STANDARD 14)
set(BUILD_SHARED_LIBS ON)
add_subdirectory(bonjour)
add_executable(other other.cpp)
install(TARGETS other RUNTIME DESTINATION bin)
"""


@pytest.mark.seconds(10)
def test_daemon_is_built_and_installed_with_the_project_whose_settings_stay_its_own(tmp_path):
    source, build, image = tmp_path / "firmware", tmp_path / "build", tmp_path / "image"
    source.mkdir()
    building.copy_of_sources(source / "bonjour")
    (source / "CMakeLists.txt").write_text(PROJECT)
    (source / "other.cpp").write_text("int main() {}\n")
    printed = building.build(build, "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON", source=source)
    assert "warning" not in printed
    settings = building.cached(build)
    assert settings["CMAKE_INSTALL_PREFIX"] == "/usr/local"
    assert settings["CMAKE_BUILD_TYPE"] == ""
    assert "CMAKE_INTERPROCEDURAL_OPTIMIZATION" not in settings
    assert "CPACK_BINARY_DEB" not in settings
    other = building.compiled_with(build)[str(source / "other.cpp")]
    options = [word for word in other if word.startswith("-")]
    assert options == ["-std=gnu++14", "-o", "-c"]
    building.run("cmake", "--install", build, DESTDIR=str(image))
    assert (image / "usr/local/bin/other").exists()
    assert building.needs(image / "usr/local/sbin/bonjour") == ["libc.so.6"]
