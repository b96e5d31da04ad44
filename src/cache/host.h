// The host behind a query, from the socket to the request cache. Addresses and ports are in network order,
// identifiers in host order.
#ifndef CACHE_HOST_H
#define CACHE_HOST_H

#include <cstdint>
#include <netinet/in.h>

struct host_v4 {
    uint64_t from; // the address in the low 32 bits
    uint16_t port;
};

struct host_v6 {
    uint64_t from;  // of a query that came in over IPv4 on loopback: the address as above; else 0
    in6_addr from6; // "::" where `from` is used
    uint16_t port;
};

// The key of a query in flight, made by request_cache_key.
template <class Host> struct host_key {
    Host host;
    uint16_t id;   // the host's own identifier
    uint32_t hash; // of the other fields
};

#endif
