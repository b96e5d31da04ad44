#include "net/pending_id.h"

#include "core/dnsproxy_data.h"

namespace {

constexpr int map_bits = 8 * static_cast<int>(sizeof dnsproxy_data.pendingIdMap);

uint8_t *byte_of(uint16_t id)
{
    return &dnsproxy_data.pendingIdMap[dnsproxy_id_hash(id) % map_bits / 8];
}

uint8_t mask_of(uint16_t id)
{
    return static_cast<uint8_t>(1 << dnsproxy_id_hash(id) % 8);
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
    *byte_of(id) |= mask_of(id);
}

int dnsproxy_pending_id_test(uint16_t id)
{
    return *byte_of(id) & mask_of(id);
}

void dnsproxy_pending_id_clear(uint16_t id)
{
    *byte_of(id) &= static_cast<uint8_t>(~mask_of(id));
}
