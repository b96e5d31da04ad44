// Time that only runs forward.
#ifndef TOOLS_CLOCK_H
#define TOOLS_CLOCK_H

#include <cstdint>
#include <ctime>

inline int64_t now_ms()
{
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

#endif
