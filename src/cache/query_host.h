// The host behind a query, per family, and the request cache by host: what the roads of a query need of the
// cache to be written once.
#ifndef CACHE_QUERY_HOST_H
#define CACHE_QUERY_HOST_H

#include "cache/request_cache.h"
#include "iface/family.h"

// Addresses and ports in network order, identifiers in host order.
struct query_host_v4 {
    uint64_t from;
    uint16_t port;

    [[nodiscard]] const dnsproxy_cache_entry *find(uint16_t id) const
    {
        return dnsproxy_entry_find(from, port, id);
    }
    [[nodiscard]] int remember(uint16_t id, uint16_t new_id, const char *ifname, int slot) const
    {
        return dnsproxy_add_entry(from, port, id, new_id, ifname, slot);
    }
};

struct query_host_v6 {
    uint64_t from;              // of a query that came in over IPv4 on loopback; else 0
    const sockaddr_in6 *client; // only the address is read; "::" where `from` is used
    uint16_t port;

    [[nodiscard]] const dnsproxy_cache_entry_v6 *find(uint16_t id) const
    {
        return dnsproxy_entry_find_v6(from, client, port, id);
    }
    [[nodiscard]] int remember(uint16_t id, uint16_t new_id, const char *ifname, int slot) const
    {
        return dnsproxy_add_entry_v6(from, client, port, id, new_id, ifname, slot);
    }
};

// The identifier for a host's query: that of the same query still in flight (`in_flight` is then true), else
// the next value of the counter.
template <class Host>
uint16_t query_identify(const Host &host, uint16_t id, uint16_t *nextId, bool *in_flight)
{
    const auto *entry = host.find(id);
    *in_flight = entry != nullptr;
    return entry != nullptr ? entry->new_id : (*nextId)++;
}

#endif
