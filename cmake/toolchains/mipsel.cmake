set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER mipsel-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mipsel-linux-gnu-g++)
# The kernels of such routers have pages of 4 KiB, a few of 16 KiB. Without this the linker leaves
# space for pages of 64 KiB, which is a third more, all zeros.
set(CMAKE_EXE_LINKER_FLAGS_INIT -Wl,-z,max-page-size=0x4000)
# Runs what was built, for the unit tests; a build for a device needs no such line.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mipsel -L /usr/mipsel-linux-gnu)
