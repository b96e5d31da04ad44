// The server interface table: one record per WAN line. The order of serverIfList is the order in which lines
// are tried. Main thread, where nothing else is said.
#ifndef IFACE_SERVER_IF_H
#define IFACE_SERVER_IF_H

#include <cstdint>
#include <netinet/in.h>

#include "iface/server_record.h"

// Adds a device with its servers ("lo" is never entered and counts as done). noV4 or noV6 equal to 1: the
// servers of that family are not taken from the arguments; the IPv6 pointers may be null only then. For a
// device that is there, only its IPv6 servers are replaced, and DNSPROXY_EEXISTS is returned. Otherwise 0,
// DNSPROXY_ENOMEMORY, or DNSPROXY_EINVALID for a name above 15 characters (a shortened one could be another
// device's).
[[nodiscard]] int dnsproxy_server_if_new(const char *ifname, uint64_t dns, uint64_t dns2,
                                         const sockaddr_in6 *dns6, const sockaddr_in6 *dns6_2, int noV4,
                                         int noV6);

// Changes servers of a device: an address that is null, an IPv4 address of 0, and a family whose flag is 1
// leave what is there. 0 or DNSPROXY_ENOTFOUND.
[[nodiscard]] int dnsproxy_server_if_set(const char *ifname, const uint64_t *dns, const uint64_t *dns2,
                                         const sockaddr_in6 *dns6, const sockaddr_in6 *dns6_2, int noV4,
                                         int noV6);

// Removes a device with its sockets and timers; 0 or DNSPROXY_ENOTFOUND.
[[nodiscard]] int dnsproxy_server_if_destroy(const char *ifname);

// The same for a record, but a VPN device ("lt-...", "pt-...") stays. 0, or DNSPROXY_EINVALID for null.
[[nodiscard]] int dnsproxy_server_if_del_normal(dnsproxy_server_if *sif);

// Dumps the tables, then removes every device that is no VPN device. 0.
[[nodiscard]] int dnsproxy_server_if_delAll();

// Sets a device's link state (null: leaves it; nonzero: down) and brings allServerIfDown up to date. 0 or
// DNSPROXY_ENOTFOUND. Any thread.
int dnsproxy_server_if_state_up(const char *ifname, const uint64_t *is_down);

// The record of that device, or nullptr.
dnsproxy_server_if *dnsproxy_server_if_get(const char *ifname);

// Makes the device the last one that is tried.
void dnsproxy_server_if_make_last(dnsproxy_server_if *sif);

// Whether an IPv4 slot holds a server: 1 or 0.
int dnsproxy_server_addr_check(uint64_t slot);

// Whether an IPv6 address in text form is a server: 0 for null and for "::", else 1.
int dnsproxy_check_dnsserver_v6(const char *text);

// The hash table, for dnsproxy_if_init and dnsproxy_if_deinit. 0 or DNSPROXY_ERESOURCE. Records are not
// freed.
[[nodiscard]] int server_if_table_init();
void server_if_table_deinit();

#endif
