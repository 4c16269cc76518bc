# Build against musl libc, the C library of OpenWrt, on an x86_64 Debian machine (little-endian,
# so the binary runs here without an emulator):
#
#   cmake -S . -B build-musl -DCMAKE_TOOLCHAIN_FILE=cmake/x86_64-linux-musl.cmake -DMLD_TESTS=OFF
#
# Debian packages: musl-dev (headers, crt files and libc), musl (the
# loader /lib/ld-musl-x86_64.so.1), g++ and linux-libc-dev. Debian has no C++ standard library
# built for musl (musl-gcc is C only). The daemon needs none at run time: it is built
# without exceptions and RTTI, uses only the C library through the C++ headers <cstring>,
# <cstdio>, ... and <atomic>, and is linked without libstdc++ (-nostdlib, then only -lc
# -lgcc): a use of the C++ runtime would fail the link instead of pulling in a library made for
# glibc. The unit tests (GoogleTest) need that runtime and are not built here.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(CMAKE_CXX_COMPILER g++)
set(MLD_MUSL_LIBDIR /usr/lib/x86_64-linux-musl)
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -dumpversion OUTPUT_VARIABLE MLD_GCC_VERSION
  OUTPUT_STRIP_TRAILING_WHITESPACE)
# gcc's own headers (stddef.h, stdarg.h, ...) and its start and end objects for PIE binaries.
foreach(item include:MLD_GCC_INCLUDE crtbeginS.o:MLD_CRTBEGIN crtendS.o:MLD_CRTEND)
  string(REPLACE ":" ";" pair ${item})
  list(GET pair 0 name)
  list(GET pair 1 var)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${name} OUTPUT_VARIABLE ${var}
    OUTPUT_STRIP_TRAILING_WHITESPACE)
endforeach()

# musl's headers have no linux/ and asm/ (the kernel's interface headers, which the netlink code
# includes): a directory of links to Debian's, searched after musl's own.
set(MLD_MUSL_KERNEL_HEADERS ${CMAKE_BINARY_DIR}/musl-kernel-headers)
file(MAKE_DIRECTORY ${MLD_MUSL_KERNEL_HEADERS})
foreach(dir linux:/usr/include/linux asm:/usr/include/x86_64-linux-gnu/asm
    asm-generic:/usr/include/asm-generic)
  string(REPLACE ":" ";" pair ${dir})
  list(GET pair 0 name)
  list(GET pair 1 target)
  if(NOT EXISTS ${MLD_MUSL_KERNEL_HEADERS}/${name})
    file(CREATE_LINK ${target} ${MLD_MUSL_KERNEL_HEADERS}/${name} SYMBOLIC)
  endif()
endforeach()

# Headers in the order g++ searches them: libstdc++'s, gcc's own, then musl's in place of
# glibc's (-nostdinc drops the default ones); musl-libstdcxx.h answers libstdc++'s glibc version
# test.
set(CMAKE_CXX_FLAGS_INIT "-nostdinc \
-isystem /usr/include/c++/${MLD_GCC_VERSION} \
-isystem /usr/include/x86_64-linux-gnu/c++/${MLD_GCC_VERSION} \
-isystem ${MLD_GCC_INCLUDE} -isystem /usr/include/x86_64-linux-musl \
-idirafter ${MLD_MUSL_KERNEL_HEADERS} -include ${CMAKE_CURRENT_LIST_DIR}/musl-libstdcxx.h")
# The link: musl's loader and start objects around the program's (the flags come before the
# objects, the libraries after them), and only musl's C library and libgcc.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-nostdlib -Wl,-dynamic-linker,/lib/ld-musl-x86_64.so.1 \
-L${MLD_MUSL_LIBDIR} ${MLD_MUSL_LIBDIR}/Scrt1.o ${MLD_MUSL_LIBDIR}/crti.o ${MLD_CRTBEGIN}")
set(CMAKE_CXX_STANDARD_LIBRARIES "-lc -lgcc ${MLD_CRTEND} ${MLD_MUSL_LIBDIR}/crtn.o")

set(CMAKE_FIND_ROOT_PATH ${MLD_MUSL_LIBDIR})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
