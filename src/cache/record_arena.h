// Memory for records that all live equally long, and so end in about the order in which they were made.
// Records are neighbours in slabs of 64, and a slab is freed with the last of its records. One allocation
// serves 64 records, and the memory of a flood is freed when its records have expired.
//
// A slab begins on a cache line. So does each record whose size is a multiple of 64.
//
// AddressSanitizer takes a record that has ended, or was not handed out yet, for freed memory.
#ifndef CACHE_RECORD_ARENA_H
#define CACHE_RECORD_ARENA_H

#include <cstddef>
#include <cstdint>

struct record_slab;

struct record_arena {
    size_t size;          // of a record, in bytes, a multiple of 8
    record_slab *current; // has room; nullptr: none yet
};

// Memory for a record, aligned to 8 bytes and not cleared; nullptr without memory. `*place` must be kept.
void *record_arena_take(record_arena *arena, uint32_t *place);

// Takes back the memory of a record of this arena, with the place that it was given.
void record_arena_give_back(record_arena *arena, void *record, uint32_t place);

#endif
