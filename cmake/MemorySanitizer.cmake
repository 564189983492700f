# For the targets of the including directory: how tests and fuzzers are built with MemorySanitizer.
#
# The machine's C++ library is not instrumented, so what it writes stays uninitialised to the
# sanitizer. The daemon does without that library. For the code around it, which does not, neither
# the stack nor the heap counts as uninitialised. The daemon's own code is watched as ever, but for
# its one call of malloc(3), which the daemon itself makes in the lab.
if(BONJOUR_SANITIZE STREQUAL "memory")
  add_compile_options("SHELL:-mllvm -msan-poison-stack=0")
  if(NOT TARGET bonjour_msan_options)
    add_library(bonjour_msan_options OBJECT ${CMAKE_SOURCE_DIR}/tests/support/msan_options.cpp)
  endif()
  link_libraries($<TARGET_OBJECTS:bonjour_msan_options>)
endif()
