# Cross builds with Debian's own compilers (crossbuild-essential-*) and foreign libraries, which live
# beside the machine's own ones in /usr/lib/TRIPLET. Included by a toolchain file.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${triplet}-g++)

# pkg-config must see the foreign libraries and none of this machine's own.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${triplet}/pkgconfig:/usr/share/pkgconfig)
