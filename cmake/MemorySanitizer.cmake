# For the targets of the including directory: how tests and fuzzers are built with MemorySanitizer.
#
# The machine's C++ library is not instrumented, so what it writes stays uninitialised to the
# sanitizer. For tests and fuzzers, which use it, neither the stack nor the heap counts as
# uninitialised. The daemon does without that library, and its code is watched as ever; all that it
# takes from the heap is zero-filled.
if(BONJOUR_SANITIZE STREQUAL "memory")
  add_compile_options("SHELL:-mllvm -msan-poison-stack=0")
  if(NOT TARGET bonjour_msan_options)
    add_library(bonjour_msan_options OBJECT ${PROJECT_SOURCE_DIR}/tests/support/msan_options.cpp)
  endif()
  link_libraries($<TARGET_OBJECTS:bonjour_msan_options>)
endif()
