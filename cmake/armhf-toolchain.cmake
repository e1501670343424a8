# Cross build for the box: 32-bit ARM Linux, hard-float (Debian's armhf).
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake \
#         -DKOVRA_ARMHF_SYSROOT=/path/to/armhf-libraries
# Needs Debian's cross compiler (g++-arm-linux-gnueabihf), whose own folder
# /usr/arm-linux-gnueabihf holds the target's libc and libstdc++, and
# qemu-user-static to run test programs here. The other libraries (zlib,
# OpenSSL, SQLite, GoogleTest) are Debian's armhf packages unpacked into
# KOVRA_ARMHF_SYSROOT: scripts/arm-test fetches them and passes the folder.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(KOVRA_ARMHF_TRIPLET arm-linux-gnueabihf)
set(KOVRA_ARMHF_CROSS /usr/${KOVRA_ARMHF_TRIPLET})
set(CMAKE_C_COMPILER ${KOVRA_ARMHF_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${KOVRA_ARMHF_TRIPLET}-g++)
# Debian's layout: libraries and CMake package files in multiarch folders
# (usr/lib/arm-linux-gnueabihf/...), arch-specific headers (OpenSSL's
# configuration.h) in usr/include/arm-linux-gnueabihf.
set(CMAKE_LIBRARY_ARCHITECTURE ${KOVRA_ARMHF_TRIPLET})
# GCC notes on every std container passed by value that its ARM calling
# convention changed in GCC 7.1; nothing here links code built before that.
set(CMAKE_C_FLAGS_INIT -Wno-psabi)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

set(KOVRA_ARMHF_SYSROOT "" CACHE PATH
    "Debian armhf -dev packages unpacked here (empty: installed multiarch)")
# try_compile projects read this file again and need the same answer.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KOVRA_ARMHF_SYSROOT)

# Libraries, headers and CMake package files come only from the target's
# folders; programs (pkg-config, the emulator) from the host. The cross
# compiler also searches the host's /usr/include: the unpacked headers must
# come first, or OpenSSL's would be half the host's.
set(CMAKE_FIND_ROOT_PATH ${KOVRA_ARMHF_SYSROOT} ${KOVRA_ARMHF_CROSS} /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
if(KOVRA_ARMHF_SYSROOT)
  foreach(lang C CXX)
    set(CMAKE_${lang}_STANDARD_INCLUDE_DIRECTORIES
        ${KOVRA_ARMHF_SYSROOT}/usr/include/${KOVRA_ARMHF_TRIPLET}
        ${KOVRA_ARMHF_SYSROOT}/usr/include)
  endforeach()
endif()
# FindOpenSSL asks pkg-config for hints: it must answer for armhf, not with
# the host's /usr/lib/x86_64-linux-gnu.
set(ENV{PKG_CONFIG_LIBDIR}
    "${KOVRA_ARMHF_SYSROOT}/usr/lib/${KOVRA_ARMHF_TRIPLET}/pkgconfig:/usr/lib/${KOVRA_ARMHF_TRIPLET}/pkgconfig")

# Test programs (and gtest_discover_tests, which lists the tests of each one
# at build time) run under qemu, which takes the ELF loader, libc and
# libstdc++ from the cross compiler's folder (QEMU_LD_PREFIX, the same as
# qemu's -L); the unpacked libraries are found through the build tree's
# RPATH. The programs the tests start themselves (kfsd, the agent,
# kovrarestore) run through binfmt_misc and inherit QEMU_LD_PREFIX.
find_program(KOVRA_QEMU_ARM NAMES qemu-arm-static qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR
    /usr/bin/env QEMU_LD_PREFIX=${KOVRA_ARMHF_CROSS} ${KOVRA_QEMU_ARM})
