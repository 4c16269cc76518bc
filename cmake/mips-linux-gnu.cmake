# Cross compilation for the target routers: 32-bit big-endian MIPS Linux.
#
#   cmake -S . -B build-mips -DCMAKE_TOOLCHAIN_FILE=cmake/mips-linux-gnu.cmake \
#         -DCMAKE_PREFIX_PATH=<GoogleTest built with this file>
#
# Debian packages: g++-mips-linux-gnu (compilers, sysroot in /usr/mips-linux-gnu) and qemu-user
# (qemu-mips runs the test binaries, so ctest works on an x86_64 build machine).
# -DMLD_MIPS_TRIPLE=mipsel-linux-gnu builds for little-endian MIPS (MT7621 and most other
# current router SoCs) with g++-mipsel-linux-gnu, run by qemu-mipsel.
set(MLD_MIPS_TRIPLE mips-linux-gnu CACHE STRING "Target triple of the MIPS cross compilers")
string(REGEX REPLACE "-.*" "" MLD_MIPS_ARCH "${MLD_MIPS_TRIPLE}")

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${MLD_MIPS_ARCH})
set(CMAKE_C_COMPILER ${MLD_MIPS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${MLD_MIPS_TRIPLE}-g++)

set(MLD_MIPS_SYSROOT /usr/${MLD_MIPS_TRIPLE} CACHE PATH "Target libraries and headers")
# Programs run on the build machine; libraries, headers and CMake packages come only from the
# target side: the sysroot and the prefixes given in CMAKE_PREFIX_PATH (for example GoogleTest
# cross-built into the build tree), never from the build machine's /usr.
set(CMAKE_FIND_ROOT_PATH ${MLD_MIPS_SYSROOT} ${CMAKE_PREFIX_PATH})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# ctest and try_run start target binaries through user-mode qemu with the target's loader and libc.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${MLD_MIPS_ARCH};-L;${MLD_MIPS_SYSROOT})

# The daemon is compiled for MIPS16e, the compact 16-bit encoding: about 30 % less flash. The
# MIPS32 cores of most router SoCs (24K, 34K, 74K, 1004K) run it, and calls into the target's
# libc switch modes by themselves (-minterlink-mips16). MLD_MIPS16=OFF builds the standard
# 32-bit encoding for a core without MIPS16e.
set(MLD_MIPS16 ON CACHE BOOL "Compile the MIPS build for the MIPS16e instruction set")
if(MLD_MIPS16)
  set(CMAKE_CXX_FLAGS_INIT "-mips16 -minterlink-mips16")
endif()
