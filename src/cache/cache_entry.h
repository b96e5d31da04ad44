// One query in flight. A record is made after the query was sent, may be marked answered, and is removed only
// by its own expiry, dnsproxyCacheTimeout after it was made. It keeps the name of its device, not a pointer:
// devices may go before it does.
#ifndef CACHE_CACHE_ENTRY_H
#define CACHE_CACHE_ENTRY_H

#include <cstddef>
#include <cstdint>
#include <net/if.h>
#include <netinet/in.h>

#include "platform/ipcom_list.h"
#include "platform/ipcom_tmo2.h"

constexpr uint64_t DNSPROXY_ENTRY_ANSWERED = 1; // bit of `flags`: a reply was accepted

struct dnsproxy_cache_entry {
    ipcom_list link;          // in cacheList
    ipcom_tmo2 tmo;           // expiry
    int32_t timeout;          // milliseconds
    uint16_t new_id;          // identifier of the forwarded query, host order
    char ifname[IF_NAMESIZE]; // device that the query left through
    int32_t dnsIndex;         // server slot that it was sent to
    uint16_t id;              // the host's own identifier, host order
    uint16_t port;            // the host's port, network order
    uint32_t hostHash;        // of from, port and id
    uint32_t place;           // of the record in its slab
    uint64_t from;            // the host's IPv4 address, network order, in the low 32 bits
    uint64_t flags;
};
static_assert(offsetof(dnsproxy_cache_entry, link) == 0);
// Two cache lines: what lists and timers change, and what a look-up and a reply need.
static_assert(sizeof(dnsproxy_cache_entry) == 128 && offsetof(dnsproxy_cache_entry, tmo.deadline) == 64);

struct dnsproxy_cache_entry_v6 {
    ipcom_list link;          // in cacheList6
    ipcom_tmo2 tmo;           // expiry
    int32_t timeout;          // milliseconds
    uint16_t new_id;          // identifier of the forwarded query, host order
    char ifname[IF_NAMESIZE]; // device that the query left through
    int32_t dnsIndex;         // server slot that it was sent to
    uint16_t id;              // the host's own identifier, host order
    uint16_t port;            // the host's port, network order
    uint32_t hostHash;        // of from, from6, port and id
    uint32_t place;           // of the record in its slab
    uint64_t from;            // of a query that came in over IPv4 on loopback: the address as above; else 0
    in6_addr from6;           // the host's IPv6 address; "::" where `from` is used
    uint64_t flags;
};
static_assert(offsetof(dnsproxy_cache_entry_v6, link) == 0);

// When a record was made, which is when its query was first sent: nanoseconds of the timer service's clock.
template <class Entry> int64_t entry_sent_at(const Entry &entry)
{
    return entry.tmo.deadline - int64_t{entry.timeout} * 1'000'000;
}

#endif
