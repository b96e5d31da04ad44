#include "cache/record_arena.h"

#include <cstdint>
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

struct record_slab {
    uint32_t taken; // so many records from its begin, ended ones among them
    uint32_t live;
};

namespace {

constexpr uint32_t slab_records = 64;

// Stands before each record.
struct place {
    record_slab *slab;
};

size_t stride_of(const record_arena *arena)
{
    return sizeof(place) + arena->size;
}

record_slab *new_slab(const record_arena *arena)
{
    const size_t records_size = slab_records * stride_of(arena);
    auto *slab = static_cast<record_slab *>(malloc(sizeof(record_slab) + records_size));
    if (slab == nullptr)
        return nullptr;
    *slab = {.taken = 0, .live = 0};
    ASAN_POISON_MEMORY_REGION(slab + 1, records_size);
    return slab;
}

void free_slab(const record_arena *arena, record_slab *slab)
{
    ASAN_UNPOISON_MEMORY_REGION(slab + 1, slab_records * stride_of(arena));
    free(slab);
}

} // namespace

void *record_arena_take(record_arena *arena)
{
    if (arena->current == nullptr) {
        arena->current = new_slab(arena);
        if (arena->current == nullptr)
            return nullptr;
    }
    record_slab *slab = arena->current;
    auto *at = reinterpret_cast<place *>(reinterpret_cast<char *>(slab + 1) + slab->taken * stride_of(arena));
    ASAN_UNPOISON_MEMORY_REGION(at, sizeof(place));
    at->slab = slab;
    ASAN_POISON_MEMORY_REGION(at, sizeof(place));
    ASAN_UNPOISON_MEMORY_REGION(at + 1, arena->size);
    slab->live++;
    slab->taken++;
    if (slab->taken == slab_records)
        arena->current = nullptr;
    return at + 1;
}

void record_arena_give_back(record_arena *arena, void *record)
{
    const place *at = static_cast<place *>(record) - 1;
    ASAN_UNPOISON_MEMORY_REGION(at, sizeof(place));
    record_slab *slab = at->slab;
    ASAN_POISON_MEMORY_REGION(at, stride_of(arena));
    slab->live--;
    if (slab->live > 0)
        return;
    if (slab == arena->current)
        arena->current = nullptr;
    free_slab(arena, slab);
}
