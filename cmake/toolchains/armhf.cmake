set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# The kernel knows no other page than 4 KiB on this machine. Without this the linker leaves space for
# pages of 64 KiB, which nearly doubles the file with zeros.
set(CMAKE_EXE_LINKER_FLAGS_INIT -Wl,-z,max-page-size=0x1000)
# Runs what was built, for the unit tests; a build for a device needs no such line.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/arm-linux-gnueabihf)
