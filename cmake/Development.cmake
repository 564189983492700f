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

# The daemon with each responder that was not chosen.
foreach(responder ${responders})
  if(NOT responder STREQUAL BONJOUR_RESPONDER)
    add_executable(bonjour-${responder} app/main.cpp)
    target_link_libraries(bonjour-${responder} PRIVATE bonjour_core bonjour_${responder})
    bonjour_link_with_libc_only(bonjour-${responder})
  endif()
endforeach()

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
    bonjour_add_lab_tests(builds)
  endif()
endif()
