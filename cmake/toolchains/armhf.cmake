# Builds for 32-bit ARM as Debian means it, ARMv7: every Raspberry Pi since the 2. The first Pi and
# the Zero are ARMv6; build on those themselves (scripts/install).
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(KESTRELBRIDGE_ARCHITECTURE armhf)
set(triplet arm-linux-gnueabihf)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static)
include(${CMAKE_CURRENT_LIST_DIR}/debian_multiarch.cmake)

# g++ 7 changed how some types are passed; each use of the standard library would tell of it.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
