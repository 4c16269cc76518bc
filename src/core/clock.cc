#include "core/clock.h"

#include <ctime>

uint64_t mldrt_now_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000u +
           static_cast<uint64_t>(now.tv_nsec) / 1000000u;
}
