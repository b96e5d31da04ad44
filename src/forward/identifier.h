// The identifier that a host's query is forwarded under. Every value comes from one counter, nextNewId.
#ifndef FORWARD_IDENTIFIER_H
#define FORWARD_IDENTIFIER_H

#include <cstdint>

#include "cache/request_cache.h"

// That of the same query still in flight (*in_flight is then true), else the next value of the counter. Host
// order.
template <class Host> uint16_t query_identify(const host_key<Host> &key, uint16_t *nextId, bool *in_flight)
{
    const auto *entry = request_cache_find(key);
    *in_flight = entry != nullptr;
    return entry != nullptr ? entry->new_id : (*nextId)++;
}

#endif
