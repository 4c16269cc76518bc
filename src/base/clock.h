// The daemon's one clock: milliseconds on the monotonic clock, so that deadlines neither jump
// with the wall clock nor stop while the machine is busy.
#ifndef MLDPROXYD_BASE_CLOCK_H
#define MLDPROXYD_BASE_CLOCK_H

#include <cstdint>

namespace mldproxy {

constexpr uint64_t kNever = UINT64_MAX;  // a deadline that is not set

uint64_t now_ms();

// The earlier of two deadlines.
inline uint64_t earlier(uint64_t a, uint64_t b) {
    return a < b ? a : b;
}

}  // namespace mldproxy

#endif
