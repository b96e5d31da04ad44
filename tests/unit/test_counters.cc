#include "core/counters.h"

#include <gtest/gtest.h>

namespace {

constexpr int64_t us = 1000;
constexpr int64_t ms = 1000 * us;

TEST(counters, time_falls_into_the_step_that_it_does_not_exceed)
{
    static constexpr struct {
        int64_t ns;
        int bucket;
    } rows[] = {
        {-1, 0},
        {0, 0},
        {1 * ms, 0},
        {1 * ms + us, 1},
        {2 * ms, 1},
        {2 * ms + us, 2},
        {200 * ms, 8},
        {4096 * ms + us, 13},
        {8192 * ms, 13},
        {8192 * ms + us, 14},
        {100'000 * ms, 14},
    };
    for (const auto &row : rows) {
        slot_counters slot = {};
        count_reply(&slot, row.ns);
        for (int i = 0; i < COUNTER_BUCKETS; i++)
            EXPECT_EQ(slot.histogram[i], i == row.bucket ? 1U : 0U) << row.ns << " ns, step " << i;
    }
}

TEST(counters, smallest_and_largest_time)
{
    slot_counters slot = {};
    for (const int64_t time : {5 * ms, 3 * ms, 9 * ms, 4 * ms})
        count_reply(&slot, time);
    EXPECT_EQ(slot.smallest_us, 3000U);
    EXPECT_EQ(slot.largest_us, 9000U);
    EXPECT_EQ(slot.total_us, 21000U);
}

} // namespace
