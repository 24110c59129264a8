# Cross build for 32-bit ARM phones (ARMv7-A with NEON, hard float) with Debian's
# arm-linux-gnueabihf compilers, against the sysroot that scripts/armhf-sysroot.sh makes in
# build-armhf/sysroot. Programs the build runs (test discovery, ctest) run under qemu-arm-static
# with that sysroot as their root.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

get_filename_component(KOVANE_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build-armhf/sysroot" ABSOLUTE)
set(CMAKE_SYSROOT "${KOVANE_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${KOVANE_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_C_FLAGS_INIT "-march=armv7-a -mfpu=neon -mfloat-abi=hard")
set(CMAKE_CXX_FLAGS_INIT "-march=armv7-a -mfpu=neon -mfloat-abi=hard")

# pkg-config reads the sysroot's .pc files and prefixes the paths they give.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${KOVANE_ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${KOVANE_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${KOVANE_ARMHF_SYSROOT}/usr/share/pkgconfig")

# -L gives qemu the sysroot as the guest's root (the loader and every library are found there);
# Android's libraries sit in a folder of their own.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L "${KOVANE_ARMHF_SYSROOT}"
    -E "LD_LIBRARY_PATH=${KOVANE_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/android")
