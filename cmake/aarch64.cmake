# Tool chain for AArch64: the cross compiler of Debian, and the libraries of the folder that
# NVRHTTPCURL_SYSROOT names. The default is the one that scripts/aarch64-sysroot makes; a device's
# SDK brings its own.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(NVRHTTPCURL_SYSROOT
    "${CMAKE_CURRENT_LIST_DIR}/../build/aarch64-sysroot"
    CACHE PATH "Folder with the target's headers and libraries")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES NVRHTTPCURL_SYSROOT)
file(REAL_PATH "${NVRHTTPCURL_SYSROOT}" CMAKE_SYSROOT)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR} "${CMAKE_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${CMAKE_SYSROOT}/usr/lib/pkgconfig")

set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-aarch64;-L;${CMAKE_SYSROOT}")
