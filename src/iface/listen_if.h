// The listen interface table: one record per local device whose hosts are served. Made once from the rules,
// read on every query, never freed while the daemon runs. Main thread only.
//
// The hash table serves the test for duplicates alone. The path of a query walks the list: rules are few, and
// the compare callback of the hash prints.
#ifndef IFACE_LISTEN_IF_H
#define IFACE_LISTEN_IF_H

#include <cstddef>
#include <cstdint>

#include "platform/ipcom_list.h"

struct dnsproxy_listen_if {
    ipcom_list link;         // in listenIfList
    char ifname_receive[20]; // device on which queries arrive; the key
    int32_t specify;         // nonzero: queries must leave through out_ifname
    char out_ifname[48];     // device name
    uint32_t polling;        // 1: a query goes to the servers of every line at once
};
static_assert(offsetof(dnsproxy_listen_if, link) == 0);

// Adds a device. It is forced when `specify` is nonzero and `out_ifname` is not null. 0; DNSPROXY_EEXISTS
// (the first record stays as it is), DNSPROXY_ENOMEMORY, or DNSPROXY_EINVALID for a name above 15
// characters: a shortened one could be another device's.
[[nodiscard]] int dnsproxy_listen_if_new(const char *ifname, int specify, const char *out_ifname,
                                         unsigned int polling);

// The same, never polling.
[[nodiscard]] int dnsproxy_listen_if2_new(const char *ifname, int specify, const char *out_ifname);

// The record of that device, or nullptr.
dnsproxy_listen_if *dnsproxy_listen_if_findByname(const char *ifname);

// Changes the forcing of a device; not forced, it keeps the old out_ifname text. 0, DNSPROXY_ENOTFOUND, or
// DNSPROXY_EINVALID as above.
[[nodiscard]] int dnsproxy_listen_if_set(const char *ifname, int specify, const char *out_ifname);

// Removes a device; 0 or DNSPROXY_ENOTFOUND.
[[nodiscard]] int dnsproxy_listen_if_destroy(const char *ifname);

// The hash table, for dnsproxy_if_init and dnsproxy_if_deinit. 0 or DNSPROXY_ERESOURCE. Records are not
// freed.
[[nodiscard]] int listen_if_table_init();
void listen_if_table_deinit();

#endif
