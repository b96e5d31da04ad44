// What the daemon counts, from its start. The main thread alone writes; the bus thread reads at any time,
// each number by itself. Nothing but 64-bit numbers stands in these records, so that they can be copied as
// such.
#ifndef CORE_COUNTERS_H
#define CORE_COUNTERS_H

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>

constexpr int COUNTER_SLOTS = 2;
constexpr int COUNTER_BUCKETS = 15; // times up to 1 ms, 2 ms, 4 ms, ... 8192 ms, and longer

// One server of a line. Its replies are the sum of the histogram: the first of a query, and later ones.
struct slot_counters {
    uint64_t sent;
    uint64_t total_us;    // sum of the times of the replies, each from the query's first send
    uint64_t smallest_us; // 0: no reply
    uint64_t largest_us;
    uint64_t histogram[COUNTER_BUCKETS];
};

// One family of a line.
struct line_counters {
    uint64_t sent_before; // to servers that have been replaced
    uint64_t failed;      // sends
    uint64_t answered;    // records that have ended so
    uint64_t expired;     // records that have ended without a reply
    slot_counters slots[COUNTER_SLOTS];
};

// Queries of hosts over one family.
struct query_counters {
    uint64_t refused; // came in on a device that no rule serves
    uint64_t forced;
    uint64_t free;
};

inline void count(uint64_t *counter, uint64_t more = 1)
{
    __atomic_store_n(counter, *counter + more, __ATOMIC_RELAXED);
}

inline void counter_set(uint64_t *counter, uint64_t value)
{
    __atomic_store_n(counter, value, __ATOMIC_RELAXED);
}

inline uint64_t counter_get(const uint64_t *counter)
{
    return __atomic_load_n(counter, __ATOMIC_RELAXED);
}

// A copy of a record of counters, for the bus thread.
template <class Counters> Counters counters_get(const Counters *from)
{
    static_assert(sizeof(Counters) % sizeof(uint64_t) == 0);
    Counters to;
    const auto *source = reinterpret_cast<const uint64_t *>(from);
    auto *target = reinterpret_cast<uint64_t *>(&to);
    for (size_t i = 0; i < sizeof to / sizeof *target; i++)
        target[i] = counter_get(&source[i]);
    return to;
}

// A server is replaced, and its numbers begin at zero.
inline void count_replaced(line_counters *line, int slot)
{
    count(&line->sent_before, line->slots[slot].sent);
    auto *counter = reinterpret_cast<uint64_t *>(&line->slots[slot]);
    for (size_t i = 0; i < sizeof line->slots[slot] / sizeof *counter; i++)
        counter_set(&counter[i], 0);
}

// A reply after so many nanoseconds. Inlined, it computes the address of each number from the slot's index.
[[gnu::noinline]] inline void count_reply(slot_counters *slot, int64_t ns)
{
    const uint64_t us = static_cast<uint64_t>(std::max<int64_t>(ns, 1000)) / 1000;
    const size_t bucket = std::min<size_t>(std::bit_width((us - 1) / 1000), COUNTER_BUCKETS - 1);
    if (us - 1 < slot->smallest_us - 1) // 0 is none
        counter_set(&slot->smallest_us, us);
    if (us > slot->largest_us)
        counter_set(&slot->largest_us, us);
    count(&slot->total_us, us);
    count(&slot->histogram[bucket]);
}

#endif
