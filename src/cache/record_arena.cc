#include "cache/record_arena.h"

#include <cstdint>
#include <cstdlib>

struct record_slab {
    uint32_t taken; // so many records from its begin, ended ones among them
    uint32_t live;
};

namespace {

// Stands before each record.
struct place {
    record_slab *slab;
};

place *place_of(void *record)
{
    return static_cast<place *>(record) - 1;
}

record_slab *new_slab(size_t record_size)
{
    auto *slab = static_cast<record_slab *>(
        malloc(sizeof(record_slab) + DNSPROXYD_SLAB_RECORDS * (sizeof(place) + record_size)));
    if (slab != nullptr)
        *slab = {.taken = 0, .live = 0};
    return slab;
}

} // namespace

void *record_arena_take(record_arena *arena)
{
    if (arena->current == nullptr) {
        arena->current = new_slab(arena->size);
        if (arena->current == nullptr)
            return nullptr;
    }
    record_slab *slab = arena->current;
    char *records = reinterpret_cast<char *>(slab + 1);
    auto *at = reinterpret_cast<place *>(records + slab->taken * (sizeof(place) + arena->size));
    at->slab = slab;
    slab->live++;
    slab->taken++;
    if (slab->taken == DNSPROXYD_SLAB_RECORDS)
        arena->current = nullptr;
    return at + 1;
}

void record_arena_give_back(record_arena *arena, void *record)
{
    record_slab *slab = place_of(record)->slab;
    slab->live--;
    if (slab->live > 0)
        return;
    if (slab == arena->current)
        slab->taken = 0;
    else
        free(slab);
}

void record_arena_clear(record_arena *arena)
{
    free(arena->current);
    arena->current = nullptr;
}
