# Cross build for 32-bit ARM Linux (hard float), the device's architecture, against an unpacked
# Debian armhf sysroot (scripts/arm_sysroot.sh makes one). Test programs run under qemu-arm.
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/armhf.cmake \
#     -DVISTREL_ARMHF_SYSROOT=$HOME/.cache/vistrel/armhf-sysroot
#
# The sysroot comes from -DVISTREL_ARMHF_SYSROOT, else from the environment variable of that name.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

if(NOT VISTREL_ARMHF_SYSROOT AND DEFINED ENV{VISTREL_ARMHF_SYSROOT})
  set(VISTREL_ARMHF_SYSROOT "$ENV{VISTREL_ARMHF_SYSROOT}")
endif()
if(NOT VISTREL_ARMHF_SYSROOT)
  message(FATAL_ERROR "Set VISTREL_ARMHF_SYSROOT to an armhf sysroot (scripts/arm_sysroot.sh)")
endif()
if(NOT EXISTS "${VISTREL_ARMHF_SYSROOT}/usr/include")
  message(FATAL_ERROR "No armhf sysroot at ${VISTREL_ARMHF_SYSROOT}")
endif()
set(VISTREL_ARMHF_SYSROOT "${VISTREL_ARMHF_SYSROOT}" CACHE PATH "The armhf sysroot")
# try_compile projects read the toolchain file again; hand them the sysroot.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VISTREL_ARMHF_SYSROOT)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_SYSROOT "${VISTREL_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${VISTREL_ARMHF_SYSROOT}")
# Libraries, headers and packages come from the sysroot; programs (pkg-config, qemu) from the host.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config reads only the sysroot's .pc files and prefixes their paths with the sysroot.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${VISTREL_ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${VISTREL_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${VISTREL_ARMHF_SYSROOT}/usr/share/pkgconfig")
unset(ENV{PKG_CONFIG_PATH})

# ctest and gtest_discover_tests run the ARM programs through qemu, with the sysroot's loader.
find_program(VISTREL_QEMU_ARM NAMES qemu-arm-static qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR "${VISTREL_QEMU_ARM};-L;${VISTREL_ARMHF_SYSROOT}")
