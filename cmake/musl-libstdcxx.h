// Included first in every translation unit of the musl build (cmake/x86_64-linux-musl.cmake).
// Debian's libstdc++ headers are configured for glibc: bits/os_defines.h tests the glibc version
// with __GLIBC_PREREQ, which musl does not define. Answering "older than any glibc" keeps them
// away from glibc-only extensions. The daemon uses only their C library wrappers and <atomic>.
#ifndef __GLIBC_PREREQ
#define __GLIBC_PREREQ(major, minor) 0
#endif
