#include "core/platform/ipcom_hash.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/random.h>
#include <unistd.h>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace {

constexpr int32_t default_buckets = 256;
constexpr uint32_t smallest_capacity = 4;

// Header of a bucket's one block of memory; `capacity` record pointers follow, then as many hashes. Both
// arrays are in the order of addition. The capacity is a multiple of 4.
struct bucket {
    uint32_t count;
    uint32_t capacity;
};

void **records_of(bucket *b)
{
    return reinterpret_cast<void **>(b + 1);
}

uint32_t *hashes_of(bucket *b)
{
    return reinterpret_cast<uint32_t *>(records_of(b) + b->capacity);
}

uint32_t grown(uint32_t capacity)
{
    return capacity < 8 ? capacity + smallest_capacity : (capacity + capacity / 2 + 3) / 4 * 4;
}

// Gives the bucket in `slot` (nullptr: none yet) another capacity; 0, or -1 without memory.
int resize(bucket **slot, uint32_t capacity)
{
    bucket *old = *slot;
    auto *b = static_cast<bucket *>(malloc(sizeof(bucket) + capacity * (sizeof(void *) + sizeof(uint32_t))));
    if (b == nullptr)
        return -1;
    b->count = 0;
    b->capacity = capacity;
    if (old != nullptr) {
        b->count = old->count;
        memcpy(records_of(b), records_of(old), old->count * sizeof(void *));
        memcpy(hashes_of(b), hashes_of(old), old->count * sizeof(uint32_t));
        free(old);
    }
    *slot = b;
    return 0;
}

template <class T> void close_gap(T *array, uint32_t at, uint32_t count)
{
    memmove(array + at, array + at + 1, (count - at - 1) * sizeof(T));
}

uint32_t draw_secret()
{
    uint32_t drawn = 0;
    if (getrandom(&drawn, sizeof drawn, GRND_NONBLOCK) != sizeof drawn) {
        // Before the kernel has gathered randomness: better than a constant.
        timespec now = {};
        (void)clock_gettime(CLOCK_REALTIME, &now);
        drawn = static_cast<uint32_t>(now.tv_nsec) ^ static_cast<uint32_t>(getpid()) << 16;
    }
    return drawn | 1; // 0 means not drawn yet
}

uint32_t secret;

} // namespace

struct ipcom_hash {
    ipcom_hash_obj_fn obj;
    ipcom_hash_key_fn key;
    ipcom_hash_cmp_fn cmp;
    uint32_t size; // number of buckets, whose pointers follow the table; nullptr: never used
};

static bucket **all_buckets(ipcom_hash *table)
{
    return reinterpret_cast<bucket **>(table + 1);
}

static bucket **bucket_slot(ipcom_hash *table, uint32_t hash)
{
    return &all_buckets(table)[hash % table->size];
}

ipcom_hash *ipcom_hash_new(ipcom_hash_obj_fn obj, ipcom_hash_key_fn key, ipcom_hash_cmp_fn cmp)
{
    return ipcom_hash_new_fixed(obj, key, cmp, default_buckets);
}

ipcom_hash *ipcom_hash_new_fixed(ipcom_hash_obj_fn obj, ipcom_hash_key_fn key, ipcom_hash_cmp_fn cmp,
                                 int32_t buckets)
{
    if (buckets < 1)
        return nullptr;
    const auto size = static_cast<uint32_t>(buckets);
    auto *table = static_cast<ipcom_hash *>(calloc(1, sizeof(ipcom_hash) + size * sizeof(void *)));
    if (table == nullptr)
        return nullptr;
    table->obj = obj;
    table->key = key;
    table->cmp = cmp;
    table->size = size;
    return table;
}

uint32_t ipcom_hash_update(const void *bytes, uint32_t length, uint32_t initial)
{
    if (secret == 0) [[unlikely]]
        secret = draw_secret();
    return XXH32(bytes, length, initial ^ secret);
}

int ipcom_hash_add(ipcom_hash *table, void *record)
{
    const uint32_t hash = table->obj(record);
    bucket **slot = bucket_slot(table, hash);
    const bucket *b = *slot;
    if (b == nullptr || b->count == b->capacity) {
        if (resize(slot, b == nullptr ? smallest_capacity : grown(b->capacity)) != 0)
            return -1;
    }
    bucket *room = *slot;
    records_of(room)[room->count] = record;
    hashes_of(room)[room->count] = hash;
    room->count++;
    return 0;
}

void *ipcom_hash_get(ipcom_hash *table, const void *key)
{
    const uint32_t hash = table->key(key);
    bucket *b = *bucket_slot(table, hash);
    if (b == nullptr)
        return nullptr;
    const uint32_t *hashes = hashes_of(b);
    for (uint32_t i = b->count; i-- > 0;) {
        if (hashes[i] == hash && table->cmp(records_of(b)[i], key) != 0)
            return records_of(b)[i];
    }
    return nullptr;
}

int ipcom_hash_remove(ipcom_hash *table, void *record)
{
    const uint32_t hash = table->obj(record);
    bucket **slot = bucket_slot(table, hash);
    bucket *b = *slot;
    if (b == nullptr)
        return -1;
    // Oldest first: records mostly leave in the order in which they came.
    uint32_t at = 0;
    while (at < b->count && (hashes_of(b)[at] != hash || records_of(b)[at] != record))
        at++;
    if (at == b->count)
        return -1;
    close_gap(records_of(b), at, b->count);
    close_gap(hashes_of(b), at, b->count);
    b->count--;
    // Memory that a flood took goes back: a large bucket shrinks when three quarters of it are empty. A
    // failure to get the smaller block only keeps the larger one.
    if (b->capacity > 2 * smallest_capacity && b->count < b->capacity / 4)
        (void)resize(slot, b->capacity / 8 * 4);
    return 0;
}

void ipcom_hash_for_each(ipcom_hash *table, ipcom_hash_each_fn each, void *data)
{
    for (uint32_t slot = 0; slot < table->size; slot++) {
        // From the end, and looking at the bucket anew each time: a removal by the callback moves only what
        // was visited already, and may give the bucket another block.
        bucket **b = &all_buckets(table)[slot];
        uint32_t left = *b == nullptr ? 0 : (*b)->count;
        while (left > 0) {
            left--;
            each(records_of(*b)[left], data);
        }
    }
}

void ipcom_hash_delete(ipcom_hash *table)
{
    if (table == nullptr)
        return;
    for (uint32_t slot = 0; slot < table->size; slot++)
        free(all_buckets(table)[slot]);
    free(table);
}
