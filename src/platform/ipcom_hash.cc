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
constexpr uint32_t capacity_step = 4;

// A ring of entries in the order of addition: records mostly leave in the order in which they came. A bucket
// that has held no more than one record since it was last empty keeps it in itself (capacity 0): in a large
// table the cost is a cache miss per bucket touched, and most buckets never need more. Otherwise it has a
// block of `capacity` record pointers and then as many tags, which a look-up reads first.
struct bucket {
    void *content; // the record, or the block
    uint32_t first;
    uint32_t count;
    uint32_t capacity;
    uint16_t tag; // of the record
};

void **records_of(bucket *b)
{
    return b->capacity == 0 ? &b->content : static_cast<void **>(b->content);
}

uint16_t *tags_of(bucket *b)
{
    return b->capacity == 0 ? &b->tag : reinterpret_cast<uint16_t *>(records_of(b) + b->capacity);
}

// The index of an entry, by its number: 0 is the oldest.
uint32_t index_of(const bucket *b, uint32_t number)
{
    const uint32_t index = b->first + number;
    return index < b->capacity ? index : index - b->capacity;
}

void free_block(bucket *b)
{
    if (b->capacity != 0)
        free(b->content);
}

// Gives the bucket a block of another capacity; 0, or -1 without memory.
int resize(bucket *b, uint32_t capacity)
{
    bucket moved = {.content = malloc(capacity * (sizeof(void *) + sizeof(uint16_t))),
                    .first = 0,
                    .count = b->count,
                    .capacity = capacity,
                    .tag = 0};
    if (moved.content == nullptr)
        return -1;
    void **records = records_of(&moved);
    uint16_t *tags = tags_of(&moved);
    for (uint32_t number = 0; number < b->count; number++) {
        const uint32_t index = index_of(b, number);
        records[number] = records_of(b)[index];
        tags[number] = tags_of(b)[index];
    }
    free_block(b);
    *b = moved;
    return 0;
}

// An eighth more than `count`, in steps of four.
uint32_t capacity_for(uint32_t count)
{
    return (count + count / 8) / capacity_step * capacity_step + capacity_step;
}

// Takes an entry out, and closes the gap from behind.
void take_out(bucket *b, uint32_t number)
{
    if (number == 0) {
        b->first = index_of(b, 1);
    } else {
        for (; number + 1 < b->count; number++) {
            const uint32_t to = index_of(b, number);
            const uint32_t from = index_of(b, number + 1);
            records_of(b)[to] = records_of(b)[from];
            tags_of(b)[to] = tags_of(b)[from];
        }
    }
    b->count--;
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

// Of the part of a hash that the bucket does not tell.
uint16_t tag_of(const ipcom_hash *table, uint32_t hash)
{
    return static_cast<uint16_t>(hash / table->size);
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
    if (b->count > 0 && b->count >= b->capacity && resize(b, capacity_for(b->count)) != 0)
        return -1;
    const uint32_t index = index_of(b, b->count);
    records_of(b)[index] = record;
    tags_of(b)[index] = tag_of(table, hash);
    b->count++;
    return 0;
}

void *ipcom_hash_get(ipcom_hash *table, const void *key)
{
    const uint32_t hash = table->key(key);
    bucket *b = bucket_of(table, hash);
    const uint16_t tag = tag_of(table, hash);
    void *const *records = records_of(b);
    const uint16_t *tags = tags_of(b);
    uint32_t index = index_of(b, b->count);
    for (uint32_t left = b->count; left > 0; left--) {
        index = (index == 0 ? b->capacity : index) - 1;
        if (tags[index] == tag && table->cmp(records[index], key) != 0)
            return records[index];
    }
    return nullptr;
}

int ipcom_hash_remove(ipcom_hash *table, void *record)
{
    const uint32_t hash = table->obj(record);
    bucket *b = bucket_of(table, hash);
    uint32_t number = 0;
    while (number < b->count && records_of(b)[index_of(b, number)] != record)
        number++;
    if (number == b->count)
        return -1;
    take_out(b, number);
    if (b->count == 0) {
        free_block(b);
        *b = {};
        return 0;
    }
    // Memory that a flood took goes back. A failure to get the smaller block only keeps the larger one.
    if (b->capacity > 2 * capacity_step && b->count < b->capacity / 2)
        (void)resize(b, capacity_for(b->count));
    return 0;
}

void ipcom_hash_for_each(ipcom_hash *table, ipcom_hash_each_fn each, void *data)
{
    for (uint32_t slot = 0; slot < table->size; slot++) {
        // From the newest, and reading the bucket anew each time: a removal by the callback moves only
        // records that were visited, but may give the bucket another block.
        bucket *b = &all_buckets(table)[slot];
        for (uint32_t number = b->count; number-- > 0;)
            each(records_of(b)[index_of(b, number)], data);
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
