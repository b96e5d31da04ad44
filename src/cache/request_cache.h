// The queries in flight, one cache per family. A record is found by its host (to send a repeated query on
// under the same identifier) and by the identifier of the forwarded query (to relay the reply).
//
// When a record expires, its device learns from it: an answered one pins the device's dnsIndex to the slot
// it used, an unanswered one moves an index that still stands on that slot to the next configured one. Main
// thread only.
#ifndef CACHE_REQUEST_CACHE_H
#define CACHE_REQUEST_CACHE_H

#include "cache/cache_entry.h"
#include "cache/host.h"

// Makes the list and the two tables; 0 or DNSPROXY_ENOMEMORY, then no table is left.
[[nodiscard]] int dnsproxy_cache_init();
[[nodiscard]] int dnsproxy_cache_init_v6();

// Deletes the tables, where they are there; records and timers stay as they are.
void dnsproxy_cache_deinit();
void dnsproxy_cache_deinit_v6();

// Adds a record and arms its expiry; does not look whether the host's query is there already. `from` and
// `port` in network order, `id` and `new_id` in host order; of `client` only the address is read. 0 or
// positive, DNSPROXY_ENOMEMORY or DNSPROXY_ERESOURCE; after a failure everything is as before.
[[nodiscard]] int dnsproxy_add_entry(uint64_t from, uint16_t port, uint16_t id, uint16_t new_id,
                                     const char *ifname, int32_t dnsIndex);
[[nodiscard]] int dnsproxy_add_entry_v6(uint64_t from, const sockaddr_in6 *client, uint16_t port, uint16_t id,
                                        uint16_t new_id, const char *ifname, int32_t dnsIndex);

// The live record of that host's query, or nullptr.
dnsproxy_cache_entry *dnsproxy_entry_find(uint64_t from, uint16_t port, uint16_t id);
dnsproxy_cache_entry_v6 *dnsproxy_entry_find_v6(uint64_t from, const sockaddr_in6 *client, uint16_t port,
                                                uint16_t id);

// The same for callers that hold the host's record: the key is hashed once for both.
host_key<host_v4> request_cache_key(const host_v4 &host, uint16_t id);
host_key<host_v6> request_cache_key(const host_v6 &host, uint16_t id);
[[nodiscard]] int request_cache_add(const host_key<host_v4> &key, uint16_t new_id, const char *ifname,
                                    int32_t dnsIndex);
[[nodiscard]] int request_cache_add(const host_key<host_v6> &key, uint16_t new_id, const char *ifname,
                                    int32_t dnsIndex);
dnsproxy_cache_entry *request_cache_find(const host_key<host_v4> &key);
dnsproxy_cache_entry_v6 *request_cache_find(const host_key<host_v6> &key);

// The newest live record under that identifier (host order), or nullptr.
dnsproxy_cache_entry *dnsproxy_entry_findById(uint16_t new_id);
dnsproxy_cache_entry_v6 *dnsproxy_entry_findById_v6(uint16_t new_id);

// Expiry of a record, which is freed: the callbacks of its timer. Always 0.
int dnsproxy_entry_timeout(void *record);
int dnsproxy_entry_timeout_v6(void *record);

// Dumps the IPv4 cache to standard output. Always 0.
int dnsproxy_cache_show();

#endif
