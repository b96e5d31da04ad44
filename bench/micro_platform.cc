// What the services under the request cache cost with few and with many queries in flight: the argument of
// each benchmark is the number of live records or armed timers. `bench/micro` runs this and compares.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <utility>
#include <vector>

#include "cache/cache_entry.h"
#include "platform/ipcom_hash.h"
#include "platform/ipcom_tmo2.h"

namespace {

constexpr int32_t buckets = 16384; // of a request cache table

using record = dnsproxy_cache_entry;

template <class T> uint32_t hash_field(const T &field, uint32_t initial)
{
    return ipcom_hash_update(&field, sizeof field, initial);
}

// As the host table of the daemon hashes a record.
uint32_t hash_of(const void *record_or_key)
{
    const auto &r = *static_cast<const record *>(record_or_key);
    return hash_field(r.id, hash_field(r.port, hash_field(r.from, 0)));
}

int matches(const void *stored, const void *key)
{
    const auto &a = *static_cast<const record *>(stored);
    const auto &b = *static_cast<const record *>(key);
    return a.id == b.id && a.port == b.port && a.from == b.from;
}

// Gives the record the key of the `number`-th query: hosts ask from many ports under many identifiers.
void set_key(record *r, uint64_t number)
{
    r->from = 0xc0a80100 + number % 200;
    r->port = static_cast<uint16_t>(number / 200);
    r->id = static_cast<uint16_t>(number * 40503 + (number >> 32));
}

// A ring of live records: the oldest leaves as the newest comes, and a reply finds one that came just before.
void hash_add_find_remove(benchmark::State &state)
{
    constexpr uint64_t reply_after = 64; // queries that come between a query and its reply
    const auto live = static_cast<uint64_t>(state.range(0));
    std::vector<record> ring(live + 1);
    ipcom_hash *table = ipcom_hash_new_fixed(hash_of, hash_of, matches, buckets);
    const auto slot = [&ring](uint64_t number) { return &ring[number % ring.size()]; };
    uint64_t next = 0;
    const auto add = [&] {
        record *r = slot(next);
        set_key(r, next++);
        if (ipcom_hash_add(table, r) != 0)
            abort();
    };
    const auto turn = [&] {
        add();
        record key = {};
        set_key(&key, next - reply_after);
        if (ipcom_hash_get(table, &key) != slot(next - reply_after))
            abort();
        if (ipcom_hash_remove(table, slot(next - 1 - live)) != 0)
            abort();
    };
    while (next < live)
        add();
    // Two more rounds, so that the buckets have the sizes that they keep.
    while (next < 3 * live)
        turn();
    for (auto _ : state)
        turn();
    ipcom_hash_delete(table);
}

constexpr int64_t wait_ms = 10'000;

int count_expiry(void *count)
{
    ++*static_cast<uint64_t *>(count);
    return 0;
}

void request(ipcom_tmo2_head *head, record *r, uint64_t *expired)
{
    if (ipcom_tmo2_request(head, &r->tmo, count_expiry, expired, wait_ms) != 0)
        abort();
}

// Any timer among the armed ones, near or far in the order of expiry, is taken off and armed again. The clock
// is the real one: reading it is part of a request.
void timer_cancel_request(benchmark::State &state)
{
    constexpr size_t stride = 7919; // prime to the counts: comes by every timer
    ipcom_tmo2_head *head = ipcom_tmo2_new();
    std::vector<record> armed(static_cast<size_t>(state.range(0)));
    uint64_t expired = 0;
    for (record &r : armed)
        request(head, &r, &expired);
    size_t at = 0;
    for (auto _ : state) {
        ipcom_tmo2_cancel(&armed[at].tmo);
        request(head, &armed[at], &expired);
        at = (at + stride) % armed.size();
    }
    ipcom_tmo2_delete(head);
}

int64_t now; // of the clock that the benchmark moves

int64_t fake_clock()
{
    return now;
}

// A timer is armed and the oldest expires. Expiries are served a batch to a call, so that what is measured is
// theirs and not the system call's.
void timer_request_expiry(benchmark::State &state)
{
    constexpr uint64_t batch = 64;
    const auto live = static_cast<uint64_t>(state.range(0));
    const int64_t step = wait_ms * 1'000'000 / state.range(0); // `live` requests take one wait
    const timeval no_wait = {};
    int64_t (*const real_clock)() = std::exchange(ipcom_tmo2_clock, fake_clock);
    ipcom_tmo2_head *head = ipcom_tmo2_new();
    std::vector<record> ring(live + batch);
    uint64_t next = 0;
    uint64_t expired = 0;
    const auto request_next = [&] {
        request(head, &ring[next++ % ring.size()], &expired);
        now += step;
    };
    while (next < live)
        request_next();
    while (state.KeepRunningBatch(batch)) {
        for (uint64_t i = 0; i < batch; i++)
            request_next();
        if (ipcom_tmo2_select(head, 0, nullptr, nullptr, nullptr, &no_wait) != 0 || next - expired > live)
            abort();
    }
    ipcom_tmo2_delete(head);
    ipcom_tmo2_clock = real_clock;
}

void live_counts(benchmark::internal::Benchmark *b)
{
    b->Arg(1'000)->Arg(100'000)->Arg(1'000'000);
}

BENCHMARK(hash_add_find_remove)->Apply(live_counts);
BENCHMARK(timer_cancel_request)->Apply(live_counts);
BENCHMARK(timer_request_expiry)->Apply(live_counts);

} // namespace

BENCHMARK_MAIN();
