#include "net/pending_id.h"

#include "core/dnsproxy_data.h"

namespace {

constexpr int map_bits = 8 * static_cast<int>(sizeof dnsproxy_data.pendingIdMap);

struct bit {
    uint8_t *byte;
    int mask;
};

bit bit_of(uint16_t id)
{
    const int hash = dnsproxy_id_hash(id);
    return {.byte = &dnsproxy_data.pendingIdMap[hash % map_bits / 8], .mask = 1 << hash % 8};
}

} // namespace

int dnsproxy_id_hash(uint16_t id)
{
    constexpr int djb2_start = 5381;
    constexpr int djb2_factor = 33;
    const int low = djb2_start * djb2_factor + (id & 0xff);
    return low * djb2_factor + (id >> 8);
}

void dnsproxy_pending_id_set(uint16_t id)
{
    const bit b = bit_of(id);
    *b.byte = static_cast<uint8_t>(*b.byte | b.mask);
}

int dnsproxy_pending_id_test(uint16_t id)
{
    const bit b = bit_of(id);
    return *b.byte & b.mask;
}

void dnsproxy_pending_id_clear(uint16_t id)
{
    const bit b = bit_of(id);
    *b.byte = static_cast<uint8_t>(*b.byte & ~b.mask);
}

bool pending_id_shares_mark(uint16_t id, uint16_t other)
{
    return (dnsproxy_id_hash(id) - dnsproxy_id_hash(other)) % map_bits == 0;
}
