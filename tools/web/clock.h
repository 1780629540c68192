// Times: the loop's clock, which never jumps, for everything that is measured, and the wall clock for what is
// compared with files and requests.
#pragma once

#include "lib/rqs.h"

#include <cstdint>

inline int64_t clock_ms() {
    timespec now = rqs_now();
    return now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
}

// Unix seconds, asked from the system.
inline int64_t clock_wall() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}
