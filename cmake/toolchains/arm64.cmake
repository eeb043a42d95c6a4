# Builds for 64-bit ARM: every Raspberry Pi since the 3, with a 64-bit system.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(KESTRELBRIDGE_ARCHITECTURE arm64)
set(triplet aarch64-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)
include(${CMAKE_CURRENT_LIST_DIR}/debian_multiarch.cmake)
