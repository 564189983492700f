# Compiler and linker settings that every target of the daemon shares.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)

set(BONJOUR_SANITIZE "" CACHE STRING "Value of -fsanitize= for every target, or empty")
option(BONJOUR_HARDEN "Stack protector, fortify and full RELRO" ON)
option(BONJOUR_STATIC "Link the daemon without any shared library" OFF)
option(BONJOUR_STRIP "Install the daemon without its symbols" OFF)
option(BONJOUR_THREAD_SAFETY "Check the lock annotations at compile time (clang)" OFF)
option(BONJOUR_COVERAGE "Count which of the daemon's lines and branches run (gcc)" OFF)
option(BONJOUR_FUZZ "Instrument for libFuzzer and build the fuzzers (clang)" OFF)
option(BONJOUR_STOCK_KERNEL
  "For a kernel that writes no status file: install bonjour-printers, and read the file that it writes" OFF)

# Does this build optimise? The flags say so, which may come from outside without a build type.
string(TOUPPER "CMAKE_CXX_FLAGS_${CMAKE_BUILD_TYPE}" flags_of_type)
set(flags "${CMAKE_CXX_FLAGS} ${${flags_of_type}}")
set(optimises OFF)
if(CMAKE_CONFIGURATION_TYPES OR flags MATCHES "(^| )-O([1-3sgz]|fast)")
  set(optimises ON)
endif()

# Optimise across files where the compiler can, unless somebody has decided about it.
if(BONJOUR_IS_TOP_LEVEL AND NOT DEFINED CMAKE_INTERPROCEDURAL_OPTIMIZATION AND optimises
    AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  include(CheckIPOSupported)
  check_ipo_supported(RESULT lto_works OUTPUT lto_output)
  set(CMAKE_INTERPROCEDURAL_OPTIMIZATION ${lto_works} CACHE BOOL "Optimise across files")
endif()

# The same sources give the same bytes wherever checkout and build lie, also with debugging
# information, which comes into being when files are optimised together.
set(same_paths
  "-ffile-prefix-map=${PROJECT_SOURCE_DIR}=." "-ffile-prefix-map=${PROJECT_BINARY_DIR}=.")
add_compile_options(${same_paths} -fno-ident)
add_link_options(${same_paths})

# What the daemon's own code is compiled with; tests, fuzzers and benches take the warnings too.
add_library(bonjour_warnings INTERFACE)
target_compile_options(bonjour_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(BONJOUR_THREAD_SAFETY)
  target_compile_options(bonjour_warnings INTERFACE -Wthread-safety)
endif()

# The printers' status file, which the daemon reads.
set(BONJOUR_STATUS_FILE /proc/printer_status)
if(BONJOUR_STOCK_KERNEL)
  set(BONJOUR_STATUS_FILE /var/run/bonjour/printer_status)
endif()

add_library(bonjour_settings INTERFACE)
target_link_libraries(bonjour_settings INTERFACE bonjour_warnings)
target_compile_definitions(bonjour_settings INTERFACE
  "BONJOUR_STATUS_FILE=\"${BONJOUR_STATUS_FILE}\"")
target_compile_options(bonjour_settings INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>
  -ffunction-sections -fdata-sections -fno-asynchronous-unwind-tables -fvisibility=hidden)

if(BONJOUR_HARDEN)
  target_compile_options(bonjour_settings INTERFACE -fstack-protector-strong)
  # A level in the flags from outside stands; one that the compiler sets by itself gives way.
  # Without optimisation the C library warns about any.
  if(optimises AND NOT flags MATCHES "_FORTIFY_SOURCE")
    target_compile_options(bonjour_settings INTERFACE
      "$<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
  endif()
endif()

if(BONJOUR_SANITIZE)
  add_compile_options(-fsanitize=${BONJOUR_SANITIZE} -fno-sanitize-recover=all
    -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=${BONJOUR_SANITIZE})
  # A library, as gcc has it: what the lab preloads comes before the sanitizer's functions.
  if(BONJOUR_LAB AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-resource-dir
      OUTPUT_VARIABLE resources OUTPUT_STRIP_TRAILING_WHITESPACE)
    add_link_options(-shared-libsan -Wl,-rpath,${resources}/lib/linux)
  endif()
endif()

# Threads count at the same time.
if(BONJOUR_COVERAGE)
  target_compile_options(bonjour_settings INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(bonjour_settings INTERFACE --coverage)
endif()

# How a static daemon is linked. Position-independent where the C library can start such a program;
# a toolchain file that knows better says so before.
if(BONJOUR_STATIC AND NOT DEFINED BONJOUR_STATIC_LINK_OPTIONS)
  execute_process(COMMAND ${CMAKE_C_COMPILER} -print-file-name=rcrt1.o
    OUTPUT_VARIABLE static_pie_start OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(IS_ABSOLUTE "${static_pie_start}")
    set(BONJOUR_STATIC_LINK_OPTIONS -static-pie)
  else()
    set(BONJOUR_STATIC_LINK_OPTIONS -static -no-pie)
  endif()
endif()

# Code and constants lie in the same pages, as the linker has it by itself for every CPU but x86: kept
# apart they take 8 KB more of zeros on flash, and the daemon's private memory with it.
include(CheckCSourceCompiles)
set(CMAKE_REQUIRED_LINK_OPTIONS -Wl,-z,noseparate-code)
check_c_source_compiles("int main(void) { return 0; }" BONJOUR_LINKER_KNOWS_NOSEPARATE_CODE)
unset(CMAKE_REQUIRED_LINK_OPTIONS)

# The daemon needs libc at run time and nothing else: it is linked by the C compiler, with the
# compiler's own helper routines taken from their static library. A sanitizer brings its C++
# runtime along and is linked as the C++ compiler does.
function(bonjour_link_with_libc_only target)
  if(BONJOUR_SANITIZE)
    return()
  endif()
  set_target_properties(${target} PROPERTIES LINKER_LANGUAGE C)
  target_link_options(${target} PRIVATE -static-libgcc -Wl,--gc-sections -Wl,--as-needed)
  if(BONJOUR_LINKER_KNOWS_NOSEPARATE_CODE)
    target_link_options(${target} PRIVATE -Wl,-z,noseparate-code)
  endif()
  if(BONJOUR_STATIC)
    target_link_options(${target} PRIVATE ${BONJOUR_STATIC_LINK_OPTIONS})
  elseif(BONJOUR_HARDEN)
    target_link_options(${target} PRIVATE -pie)
  endif()
  if(BONJOUR_HARDEN)
    target_link_options(${target} PRIVATE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
  endif()
endfunction()
