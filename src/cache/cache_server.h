// The cache server: one line singled out for a choice of a single server. The request paths choose by the
// order of the server table and only reset this state. Main thread only.
#ifndef CACHE_CACHE_SERVER_H
#define CACHE_CACHE_SERVER_H

#include <cstdint>

#include "iface/server_if.h"

// Forgets the cache server; its name stays.
void dnsproxy_server_if_resetCache();

// Name of the device after `ifname` in the table's order, of the first one after the last and for an unknown
// name; nullptr when the table is empty. It points into the record.
const char *dnsproxy_server_if_getNext(const char *ifname);

// Chooses one IPv4 server and makes its device the cache server. `check` says whether a slot is usable. 0
// with the device, the slot's value and its index filled in, or DNSPROXY_ENOTFOUND with nothing touched.
[[nodiscard]] int dnsproxy_server_if_getServerAddress(int (*check)(uint64_t slot), dnsproxy_server_if **srv,
                                                      uint64_t *addr, int32_t *index);

#endif
