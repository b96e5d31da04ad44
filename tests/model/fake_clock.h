// A clock for the timer service that moves only when the test says so.
#ifndef TESTS_FAKE_CLOCK_H
#define TESTS_FAKE_CLOCK_H

#include <cstdint>

#include "platform/ipcom_tmo2.h"

class fake_clock {
public:
    fake_clock() : real_(ipcom_tmo2_clock)
    {
        now_ns = 1'000'000'000;
        ipcom_tmo2_clock = [] { return now_ns; };
    }
    ~fake_clock() { ipcom_tmo2_clock = real_; }
    fake_clock(const fake_clock &) = delete;
    fake_clock &operator=(const fake_clock &) = delete;

    static void advance_ms(int64_t ms) { advance_ns(ms * 1'000'000); }
    static void advance_ns(int64_t ns) { now_ns += ns; }

private:
    int64_t (*real_)();
    static inline int64_t now_ns;
};

#endif
