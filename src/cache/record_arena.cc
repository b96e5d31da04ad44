#include "cache/record_arena.h"

#include <cstdlib>

#ifdef __has_feature
#if __has_feature(address_sanitizer)
#define RECORD_ARENA_POISONS
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define RECORD_ARENA_POISONS
#endif
#ifdef RECORD_ARENA_POISONS
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, size) ((void)(address), (void)(size))
#define ASAN_UNPOISON_MEMORY_REGION(address, size) ((void)(address), (void)(size))
#endif

// Its records follow it, each at its place. It stands on a cache line in a block of malloc: a free block then
// fits the next slab, which those of aligned_alloc do not.
struct alignas(64) record_slab {
    void *block;
    uint32_t taken; // so many records from its begin, ended ones among them
    uint32_t live;
};

namespace {

constexpr uint32_t slab_records = 64;

size_t records_size(const record_arena *arena)
{
    return slab_records * arena->size;
}

record_slab *new_slab(const record_arena *arena)
{
    constexpr size_t line = alignof(record_slab);
    void *block = malloc(line - 1 + sizeof(record_slab) + records_size(arena));
    if (block == nullptr)
        return nullptr;
    const size_t to_line = -reinterpret_cast<uintptr_t>(block) % line;
    auto *slab = reinterpret_cast<record_slab *>(static_cast<char *>(block) + to_line);
    *slab = {.block = block, .taken = 0, .live = 0};
    ASAN_POISON_MEMORY_REGION(slab + 1, records_size(arena));
    return slab;
}

void free_slab(const record_arena *arena, record_slab *slab)
{
    ASAN_UNPOISON_MEMORY_REGION(slab + 1, records_size(arena));
    free(slab->block);
}

} // namespace

void *record_arena_take(record_arena *arena, uint32_t *place)
{
    if (arena->current == nullptr) {
        arena->current = new_slab(arena);
        if (arena->current == nullptr)
            return nullptr;
    }
    record_slab *slab = arena->current;
    *place = slab->taken++;
    slab->live++;
    if (slab->taken == slab_records)
        arena->current = nullptr;
    char *record = reinterpret_cast<char *>(slab + 1) + *place * arena->size;
    ASAN_UNPOISON_MEMORY_REGION(record, arena->size);
    return record;
}

void record_arena_give_back(record_arena *arena, void *record, uint32_t place)
{
    auto *slab = reinterpret_cast<record_slab *>(static_cast<char *>(record) - place * arena->size) - 1;
    ASAN_POISON_MEMORY_REGION(record, arena->size);
    slab->live--;
    if (slab->live > 0)
        return;
    if (slab == arena->current)
        arena->current = nullptr;
    free_slab(arena, slab);
}
