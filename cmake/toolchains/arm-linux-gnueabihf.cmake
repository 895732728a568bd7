# SPDX-License-Identifier: Apache-2.0
# CMake toolchain file: Debian's arm-linux-gnueabihf cross compiler (32-bit
# ARM, hard float), target programs run through qemu-arm.
#
#   Host packages: g++-arm-linux-gnueabihf qemu-user (scripts/armhf_host_deps.sh)
#   Target libs:   scripts/armhf_sysroot.sh <dir>  (zlib, OpenSSL armhf .debs)
#
#   cmake -S . -B build-armhf \
#     -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/arm-linux-gnueabihf.cmake \
#     [-DKARST_ARMHF_SYSROOT=/abs/path/to/sysroot]   # default: <build>/sysroot
#
# If the sysroot is missing and KARST_ARMHF_SYSROOT_AUTO is ON (default), the
# sysroot script next to this repo's cmake/ dir is run at configure time.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(KARST_ARMHF_TRIPLE arm-linux-gnueabihf)
set(CMAKE_LIBRARY_ARCHITECTURE ${KARST_ARMHF_TRIPLE})

find_program(CMAKE_C_COMPILER   ${KARST_ARMHF_TRIPLE}-gcc REQUIRED)
find_program(CMAKE_CXX_COMPILER ${KARST_ARMHF_TRIPLE}-g++ REQUIRED)
find_program(KARST_QEMU_ARM qemu-arm REQUIRED)

# Where the cross toolchain keeps the target libc/libstdc++ (Debian layout).
set(KARST_ARMHF_TOOLCHAIN_ROOT /usr/${KARST_ARMHF_TRIPLE})

# --- sysroot holding the unpacked armhf library packages -------------------
# This file is re-read for every try_compile() with a different
# CMAKE_BINARY_DIR, so the value is fixed on first read and forwarded.
if(NOT DEFINED KARST_ARMHF_SYSROOT)
  set(KARST_ARMHF_SYSROOT "${CMAKE_BINARY_DIR}/sysroot")
endif()
set(KARST_ARMHF_SYSROOT "${KARST_ARMHF_SYSROOT}" CACHE PATH
    "Directory with the unpacked armhf .debs (zlib, OpenSSL)")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KARST_ARMHF_SYSROOT KARST_ARMHF_TIME64)

option(KARST_ARMHF_SYSROOT_AUTO "Populate KARST_ARMHF_SYSROOT at configure time if missing" ON)
set(_karst_sysroot_script "${CMAKE_CURRENT_LIST_DIR}/../../scripts/armhf_sysroot.sh")
if(KARST_ARMHF_SYSROOT_AUTO AND NOT EXISTS "${KARST_ARMHF_SYSROOT}/.karst-sysroot/libssl-dev"
   AND EXISTS "${_karst_sysroot_script}")
  message(STATUS "armhf sysroot missing: running ${_karst_sysroot_script}")
  execute_process(COMMAND bash "${_karst_sysroot_script}" "${KARST_ARMHF_SYSROOT}"
                  RESULT_VARIABLE _karst_rc)
  if(NOT _karst_rc EQUAL 0)
    message(FATAL_ERROR "armhf sysroot script failed (${_karst_rc})")
  endif()
endif()

set(_karst_libdirs
  "${KARST_ARMHF_SYSROOT}/lib/${KARST_ARMHF_TRIPLE}"
  "${KARST_ARMHF_SYSROOT}/usr/lib/${KARST_ARMHF_TRIPLE}")
list(JOIN _karst_libdirs ":" _karst_libpath)

# --- find_* look only in the target roots -----------------------------------
list(APPEND CMAKE_FIND_ROOT_PATH "${KARST_ARMHF_SYSROOT}" "${KARST_ARMHF_TOOLCHAIN_ROOT}")
list(REMOVE_DUPLICATES CMAKE_FIND_ROOT_PATH)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config (used by FindOpenSSL/FindZLIB as hints) must see the armhf .pc files.
set(ENV{PKG_CONFIG_LIBDIR} "${KARST_ARMHF_SYSROOT}/usr/lib/${KARST_ARMHF_TRIPLE}/pkgconfig:${KARST_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${KARST_ARMHF_SYSROOT}")
unset(ENV{PKG_CONFIG_PATH})

# --- compile / link flags ---------------------------------------------------
# 64-bit off_t and time_t.  glibc >= 2.34 supports _TIME_BITS=64 (requires
# _FILE_OFFSET_BITS=64); Debian 12's cross glibc is 2.36.  NOTE: Debian 12's
# armhf libssl3/zlib are built with 32-bit time_t: never pass time_t (or
# structs holding it) across the OpenSSL API (ASN1_TIME_set, X509_cmp_time
# with a non-NULL time, OPENSSL_gmtime, ...); use the *_tm / string variants.
option(KARST_ARMHF_TIME64 "Build the target with 64-bit time_t (_TIME_BITS=64)" OFF)
set(_karst_defs "-D_FILE_OFFSET_BITS=64")
if(KARST_ARMHF_TIME64)
  string(APPEND _karst_defs " -D_TIME_BITS=64")
endif()
# The multiarch include dir of the sysroot (openssl/configuration.h lives
# there) is not searched by the cross compiler by default.
set(_karst_incs "-isystem ${KARST_ARMHF_SYSROOT}/usr/include/${KARST_ARMHF_TRIPLE}")
# -Wno-psabi: silences GCC's "parameter passing ... changed in GCC 7.1" notes
# (irrelevant: everything here is built by GCC 12).
set(CMAKE_C_FLAGS_INIT   "${_karst_defs} ${_karst_incs} -Wno-psabi")
set(CMAKE_CXX_FLAGS_INIT "${_karst_defs} ${_karst_incs} -Wno-psabi")

# Let ld resolve NEEDED entries of sysroot libs (libssl.so -> libcrypto.so.3).
set(_karst_ldflags "-Wl,-rpath-link,${_karst_libpath}")
set(CMAKE_EXE_LINKER_FLAGS_INIT    "${_karst_ldflags}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_karst_ldflags}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${_karst_ldflags}")

# --- running target programs --------------------------------------------------
# Used by add_test(COMMAND <target>), gtest_discover_tests and
# try_run().  -L gives the target's ld.so/libc; LD_LIBRARY_PATH adds the
# sysroot libs.  Build-tree RUNPATHs work as is (qemu falls back to host paths).
set(CMAKE_CROSSCOMPILING_EMULATOR
    "${KARST_QEMU_ARM};-L;${KARST_ARMHF_TOOLCHAIN_ROOT};-E;LD_LIBRARY_PATH=${_karst_libpath}")
