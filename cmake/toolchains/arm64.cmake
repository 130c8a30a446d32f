# 64-bit ARM with Debian's cross compiler (g++-aarch64-linux-gnu).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
# Tests and emulation run what was built; with static programs this is all it takes.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
