# What is built beside the daemon: tests, fuzzers, the lab, benchmarks.
cmake_minimum_required(VERSION 3.25)

enable_testing()
set(BONJOUR_PYTHON /usr/bin/python3 CACHE FILEPATH
  "Python with pytest and dnspython, for the lab and the system tests")

option(BONJOUR_TIDY_TESTS "clang-tidy looks at the tests too, which takes minutes" OFF)
if(BONJOUR_TESTS OR BONJOUR_FUZZ)
  add_subdirectory(fuzz)
endif()
if(BONJOUR_BENCH)
  find_package(benchmark REQUIRED)
  add_subdirectory(bench)
endif()
if(BONJOUR_TESTS)
  if(NOT BONJOUR_TIDY_TESTS)
    set(CMAKE_CXX_CLANG_TIDY "")
  endif()
  add_subdirectory(tests)
endif()

if(BONJOUR_LAB)
  add_subdirectory(lab)
  include(tests/LabTests.cmake)
  bonjour_add_lab_tests(system)
  bonjour_add_lab_tests(hostile)
  bonjour_add_lab_tests(faults)
  bonjour_add_lab_tests(runner)
  bonjour_add_lab_tests(style)
  # A sanitizer's runtime needs more files and system calls than the daemon. How it is built by
  # others has nothing to do with this build.
  if(NOT BONJOUR_SANITIZE)
    bonjour_add_lab_tests(package)
    bonjour_add_lab_tests(stock_kernel)
    # The daemon for a stock kernel, and what is installed with it.
    add_custom_target(stock_build
      COMMAND ${CMAKE_COMMAND} -G ${CMAKE_GENERATOR} -S ${PROJECT_SOURCE_DIR} -B stock
        -DCMAKE_CXX_COMPILER=${CMAKE_CXX_COMPILER} -DCMAKE_C_COMPILER=${CMAKE_C_COMPILER}
        -DCMAKE_COMPILE_WARNING_AS_ERROR=ON -DBONJOUR_STOCK_KERNEL=ON
      COMMAND ${CMAKE_COMMAND} --build stock
      VERBATIM)
    foreach(group package stock_kernel)
      add_dependencies(${group}_tests stock_build)
    endforeach()
    bonjour_add_lab_tests(builds)
  endif()
endif()
