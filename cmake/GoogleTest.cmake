# GoogleTest with its module for CMake: the machine's own, or built from the same package's sources
# for another machine and for MemorySanitizer, which wants all code instrumented.
include(${CMAKE_CURRENT_LIST_DIR}/MemorySanitizer.cmake)
if(CMAKE_CROSSCOMPILING OR BONJOUR_SANITIZE STREQUAL "memory")
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
