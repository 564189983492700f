# What is built beside the daemon: tests, fuzzers, the lab, benchmarks.
cmake_minimum_required(VERSION 3.25)

enable_testing()
# Tests link the objects that ship, but only the daemon is optimised across files.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  foreach(library base classic core standard standard_core)
    target_compile_options(bonjour_${library} PRIVATE -ffat-lto-objects)
  endforeach()
endif()
set(BONJOUR_PYTHON /usr/bin/python3 CACHE FILEPATH
  "Python that looks at what benchmarks count")

option(BONJOUR_TIDY_TESTS "clang-tidy looks at the tests too, which takes minutes" OFF)
if((BONJOUR_TESTS OR BONJOUR_FUZZ) AND NOT BONJOUR_SANITIZE STREQUAL "thread")
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
set(other_daemons)
foreach(responder ${responders})
  if(NOT responder STREQUAL BONJOUR_RESPONDER)
    add_executable(bonjour-${responder} app/main.cpp)
    target_link_libraries(bonjour-${responder} PRIVATE bonjour_core bonjour_${responder})
    bonjour_link_with_libc_only(bonjour-${responder})
    list(APPEND other_daemons bonjour-${responder})
  endif()
endforeach()
if(BONJOUR_SANITIZE STREQUAL "thread" AND TARGET bonjour-standard)
  target_sources(bonjour-standard PRIVATE ${PROJECT_SOURCE_DIR}/tests/support/tsan_options.cpp)
endif()

if(BONJOUR_LAB)
  add_subdirectory(lab)
  # The daemon for a stock kernel with each responder, and what is installed with it.
  set(building_stock)
  foreach(responder ${responders})
    list(APPEND building_stock
      COMMAND ${CMAKE_COMMAND} -G ${CMAKE_GENERATOR} -S ${PROJECT_SOURCE_DIR} -B stock/${responder}
        -DCMAKE_CXX_COMPILER=${CMAKE_CXX_COMPILER} -DCMAKE_C_COMPILER=${CMAKE_C_COMPILER}
        -DCMAKE_COMPILE_WARNING_AS_ERROR=ON -DBONJOUR_STOCK_KERNEL=ON
        -DBONJOUR_RESPONDER=${responder}
      COMMAND ${CMAKE_COMMAND} --build stock/${responder})
  endforeach()
  add_custom_target(stock_build ${building_stock} VERBATIM)
  if(NOT BONJOUR_SANITIZE)
    add_dependencies(lab_tests stock_build)
  endif()
endif()
