# x86-64 with musl, as Debian's musl-tools brings it: a stand-in for the small C libraries of
# firmware. It comes without C++, but the daemon needs no more of C++ than headers, and those of the
# machine's own compiler serve, except for the one that describes the C library.
set(CMAKE_C_COMPILER musl-gcc)
set(CMAKE_CXX_COMPILER musl-gcc)
# The archive holds code for link-time optimisation, which only the compiler's own tools list.
set(CMAKE_C_COMPILER_AR gcc-ar)
set(CMAKE_C_COMPILER_RANLIB gcc-ranlib)
set(CMAKE_CXX_COMPILER_AR gcc-ar)
set(CMAKE_CXX_COMPILER_RANLIB gcc-ranlib)

execute_process(COMMAND g++ -dumpversion OUTPUT_VARIABLE cxx_version
  OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND g++ -dumpmachine OUTPUT_VARIABLE cxx_machine
  OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT cxx_machine)
  message(FATAL_ERROR "g++ is missing, whose C++ headers serve")
endif()
# The kernel's headers, which every firmware SDK has, are the machine's too, without what lies beside
# them.
set(kernel_headers ${CMAKE_BINARY_DIR}/kernel-headers)
file(MAKE_DIRECTORY ${kernel_headers})
foreach(folder linux asm-generic ${cxx_machine}/asm)
  get_filename_component(name ${folder} NAME)
  file(CREATE_LINK /usr/include/${folder} ${kernel_headers}/${name} SYMBOLIC)
endforeach()
string(JOIN " " CMAKE_CXX_FLAGS_INIT
  -isystem ${CMAKE_CURRENT_LIST_DIR}/musl
  -isystem /usr/include/c++/${cxx_version}
  -isystem /usr/include/${cxx_machine}/c++/${cxx_version}
  -isystem ${kernel_headers})

# The compiler's wrapper does not know position-independent static executables; the linker does.
set(BONJOUR_STATIC_LINK_OPTIONS -static -nostartfiles /usr/lib/x86_64-linux-musl/rcrt1.o
  -Wl,-pie,--no-dynamic-linker,-z,text)
