#include "cache/record_arena.h"

#include <cstdint>
#include <deque>
#include <gtest/gtest.h>
#include <set>

namespace {

struct record {
    uint64_t number;
    uint64_t copy;
    uint32_t place;
    uint32_t padding[11];
};

// Ends of records, oldest first, or the second oldest: no record is another's memory or changed by another's
// end, and the leak checker sees that every slab goes with its last record.
TEST(record_arena, records_are_apart_until_they_end)
{
    record_arena arena = {.size = sizeof(record), .current = nullptr};
    std::deque<record *> live;
    std::set<record *> used;
    uint64_t number = 0;
    const auto end = [&](size_t at) {
        record *r = live[at];
        EXPECT_EQ(r->number, r->copy);
        EXPECT_EQ(used.erase(r), 1U);
        live.erase(live.begin() + static_cast<std::ptrdiff_t>(at));
        record_arena_give_back(&arena, r, r->place);
    };
    // More and more in flight, then fewer and fewer, to none, twice; a slab holds a few dozen.
    for (const int takes : {1, 3, 7, 2, 0, 5, 0}) {
        for (int i = 0; i < takes * 100; i++) {
            uint32_t place = 0;
            auto *r = static_cast<record *>(record_arena_take(&arena, &place));
            ASSERT_NE(r, nullptr);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(r) % 64, 0U) << "on a cache line";
            r->place = place;
            EXPECT_TRUE(used.insert(r).second) << "handed out twice";
            r->number = r->copy = number++;
            live.push_back(r);
            if (i % 3 == 0)
                end(i % 2 == 0 ? 0 : std::min<size_t>(1, live.size() - 1));
        }
        while (live.size() > static_cast<size_t>(takes))
            end(0);
    }
    EXPECT_TRUE(live.empty());
    EXPECT_EQ(arena.current, nullptr) << "the last slab goes with its last record";
}

} // namespace
