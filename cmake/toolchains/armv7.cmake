# 32-bit ARM, hard float, with Debian's cross compiler (g++-arm-linux-gnueabihf).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
