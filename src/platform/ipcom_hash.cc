#include "platform/ipcom_hash.h"

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

// Entries [first, end), in the order of addition: records mostly leave in the order in which they came, and
// then nothing is moved. A bucket that has held no more than one record since it was last empty keeps it in
// itself (capacity 0): in a large table the cost is a cache miss per bucket touched, and most buckets never
// need more. Otherwise it has a block of `capacity` hashes, which a look-up reads first, then as many record
// pointers. The capacity is a multiple of 4.
struct bucket {
    void *content; // the record, or the block
    uint32_t hash; // of the record
    uint32_t first;
    uint32_t end;
    uint32_t capacity;
};

uint32_t *hashes_of(bucket *b)
{
    return b->capacity == 0 ? &b->hash : static_cast<uint32_t *>(b->content);
}

void **records_of(bucket *b)
{
    return b->capacity == 0 ? &b->content : reinterpret_cast<void **>(hashes_of(b) + b->capacity);
}

uint32_t count_of(const bucket *b)
{
    return b->end - b->first;
}

uint32_t grown(uint32_t capacity)
{
    return capacity < 8 ? capacity + smallest_capacity : (capacity + capacity / 2 + 3) / 4 * 4;
}

void free_block(bucket *b)
{
    if (b->capacity != 0)
        free(b->content);
}

// Gives the bucket a block of another capacity; 0, or -1 without memory.
int resize(bucket *b, uint32_t capacity)
{
    bucket resized = {.content = malloc(capacity * (sizeof(uint32_t) + sizeof(void *))),
                      .hash = 0,
                      .first = 0,
                      .end = count_of(b),
                      .capacity = capacity};
    if (resized.content == nullptr)
        return -1;
    memcpy(hashes_of(&resized), hashes_of(b) + b->first, resized.end * sizeof(uint32_t));
    memcpy(records_of(&resized), records_of(b) + b->first, resized.end * sizeof(void *));
    free_block(b);
    *b = resized;
    return 0;
}

template <class T> void move(T *array, uint32_t to, uint32_t from, uint32_t end)
{
    memmove(array + to, array + from, (end - from) * sizeof(T));
}

// Moves the entries [from, end) down to `to`.
void move_down(bucket *b, uint32_t to, uint32_t from)
{
    move(hashes_of(b), to, from, b->end);
    move(records_of(b), to, from, b->end);
    b->end -= from - to;
}

// Makes room for one more at the end; 0, or -1 without memory. A bucket is moved down only if that frees a
// quarter of it, so that an addition costs the same however many records the bucket holds.
int make_room(bucket *b)
{
    if (b->end < b->capacity || b->end == 0)
        return 0;
    if (b->first == 0 || b->first < b->capacity / 4)
        return resize(b, grown(b->capacity));
    move_down(b, 0, b->first);
    b->first = 0;
    return 0;
}

[[gnu::cold, gnu::noinline]] uint32_t draw_secret()
{
    uint32_t drawn = 0;
    if (getrandom(&drawn, sizeof drawn, GRND_NONBLOCK) != sizeof drawn) {
        // Before the kernel has gathered randomness: better than a constant.
        timespec now = {};
        clock_gettime(CLOCK_REALTIME, &now);
        drawn = static_cast<uint32_t>(now.tv_nsec) ^ static_cast<uint32_t>(getpid()) << 16;
    }
    return drawn | 1; // 0 means not drawn yet
}

uint32_t secret; // drawn with the first table, only read afterwards

// The last step of XXH32: every bit of the result depends on every bit of the value.
uint32_t scatter(uint32_t value)
{
    constexpr uint32_t prime2 = 0x85ebca77;
    constexpr uint32_t prime3 = 0xc2b2ae3d;
    value = (value ^ value >> 15) * prime2;
    value = (value ^ value >> 13) * prime3;
    return value ^ value >> 16;
}

} // namespace

struct ipcom_hash {
    ipcom_hash_obj_fn obj;
    ipcom_hash_key_fn key;
    ipcom_hash_cmp_fn cmp;
    uint32_t size; // number of buckets, which follow the table
};

namespace {

bucket *all_buckets(ipcom_hash *table)
{
    return reinterpret_cast<bucket *>(table + 1);
}

bucket *bucket_of(ipcom_hash *table, uint32_t hash)
{
    return &all_buckets(table)[hash % table->size];
}

} // namespace

ipcom_hash *ipcom_hash_new(ipcom_hash_obj_fn obj, ipcom_hash_key_fn key, ipcom_hash_cmp_fn cmp)
{
    return ipcom_hash_new_fixed(obj, key, cmp, default_buckets);
}

ipcom_hash *ipcom_hash_new_fixed(ipcom_hash_obj_fn obj, ipcom_hash_key_fn key, ipcom_hash_cmp_fn cmp,
                                 int32_t buckets)
{
    if (buckets < 1)
        return nullptr;
    if (secret == 0)
        secret = draw_secret();
    const auto size = static_cast<uint32_t>(buckets);
    auto *table = static_cast<ipcom_hash *>(calloc(1, sizeof(ipcom_hash) + size * sizeof(bucket)));
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
    const uint32_t seed = initial ^ secret;
    if (length == sizeof(uint16_t)) {
        uint16_t value = 0;
        memcpy(&value, bytes, sizeof value);
        return scatter(seed) + value;
    }
    return XXH32(bytes, length, seed);
}

int ipcom_hash_add(ipcom_hash *table, void *record)
{
    const uint32_t hash = table->obj(record);
    bucket *b = bucket_of(table, hash);
    if (make_room(b) != 0)
        return -1;
    hashes_of(b)[b->end] = hash;
    records_of(b)[b->end] = record;
    b->end++;
    return 0;
}

void *ipcom_hash_get(ipcom_hash *table, const void *key)
{
    const uint32_t hash = table->key(key);
    bucket *b = bucket_of(table, hash);
    const uint32_t *hashes = hashes_of(b);
    for (uint32_t i = b->end; i-- > b->first;) {
        if (hashes[i] == hash && table->cmp(records_of(b)[i], key) != 0)
            return records_of(b)[i];
    }
    return nullptr;
}

int ipcom_hash_remove(ipcom_hash *table, void *record)
{
    const uint32_t hash = table->obj(record);
    bucket *b = bucket_of(table, hash);
    uint32_t at = b->first;
    while (at < b->end && (hashes_of(b)[at] != hash || records_of(b)[at] != record))
        at++;
    if (at == b->end)
        return -1;
    if (at == b->first)
        b->first++;
    else
        move_down(b, at, at + 1);
    if (b->first == b->end) {
        free_block(b);
        *b = {};
        return 0;
    }
    // Memory that a flood took goes back: a large bucket shrinks when three quarters of it are empty. A
    // failure to get the smaller block only keeps the larger one.
    if (b->capacity > 2 * smallest_capacity && count_of(b) < b->capacity / 4)
        resize(b, b->capacity / 8 * 4);
    return 0;
}

void ipcom_hash_for_each(ipcom_hash *table, ipcom_hash_each_fn each, void *data)
{
    for (uint32_t slot = 0; slot < table->size; slot++) {
        // From the end, and reading the bucket anew each time: a removal by the callback moves only records
        // that were visited, but may give the bucket another block.
        bucket *b = &all_buckets(table)[slot];
        uint32_t left = count_of(b);
        while (left > 0) {
            left--;
            each(records_of(b)[b->first + left], data);
        }
    }
}

void ipcom_hash_delete(ipcom_hash *table)
{
    if (table == nullptr)
        return;
    for (uint32_t slot = 0; slot < table->size; slot++)
        free_block(&all_buckets(table)[slot]);
    free(table);
}
