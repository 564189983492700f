set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER arm-linux-gnueabi-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabi-g++)
# Runs what was built, for the unit tests, on the oldest CPU of these; a build for a device needs no
# such line.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -cpu arm926 -L /usr/arm-linux-gnueabi)
