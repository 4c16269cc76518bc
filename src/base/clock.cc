#include "base/clock.h"

#include <ctime>

namespace mldproxy {

uint64_t now_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    // 32-bit division: a 64-bit one would pull libgcc's division routines into a 32-bit build.
    uint32_t ms = static_cast<uint32_t>(now.tv_nsec) / 1000000u;
    return static_cast<uint64_t>(now.tv_sec) * 1000u + ms;
}

}  // namespace mldproxy
