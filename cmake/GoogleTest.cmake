# GoogleTest with its module for CMake: the machine's own, or for another machine built from the same
# package's sources.
if(CMAKE_CROSSCOMPILING)
  set(BONJOUR_GOOGLETEST_SOURCES /usr/src/googletest CACHE PATH "Sources of GoogleTest")
  block()
    set(INSTALL_GTEST OFF)
    set(CMAKE_INTERPROCEDURAL_OPTIMIZATION OFF)
    add_subdirectory(${BONJOUR_GOOGLETEST_SOURCES} ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL
      SYSTEM)
  endblock()
else()
  find_package(GTest REQUIRED)
endif()
include(GoogleTest)
