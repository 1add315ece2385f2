# Debian's cross toolchain for 64-bit ARM with Debian's multi-arch libraries.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_STRIP aarch64-linux-gnu-strip)
set(KXAMAZON_DEBIAN_ARCHITECTURE arm64)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
# Runs what the build itself runs, and the unit tests.
find_program(KX_QEMU NAMES qemu-aarch64-static qemu-aarch64)
if(KX_QEMU)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${KX_QEMU})
endif()
