// The server interface table: one record per outgoing (WAN) device with its DNS servers, upstream sockets,
// idle timers and link state. The order of serverIfList is the order in which lines are tried. Main thread,
// where nothing else is said.
#ifndef IFACE_SERVER_IF_H
#define IFACE_SERVER_IF_H

#include <cstddef>
#include <cstdint>
#include <net/if.h>
#include <netinet/in.h>

#include "core/counters.h"
#include "core/dnsproxy_data.h"
#include "core/platform/ipcom_list.h"
#include "core/platform/ipcom_tmo2.h"

constexpr int DNSPROXY_SERVER_SLOTS = COUNTER_SLOTS;

struct dnsproxy_server_if {
    ipcom_list link;                           // in serverIfList
    char ifname[IF_NAMESIZE];                  // device name; the key
    int32_t ifindex;                           // always 0
    uint64_t dnsServer[DNSPROXY_SERVER_SLOTS]; // IPv4 address, network order, in the low 32 bits; 0: none
    sockaddr_in6 dnsServer6[DNSPROXY_SERVER_SLOTS]; // only the address counts; "::": none
    int32_t dnsIndex;                               // slot that is tried first, for both families
    int32_t serverFd;                               // -1 while closed
    int32_t serverFd6;                              // -1 while closed
    ipcom_tmo2 serverTmo;                           // closes serverFd when idle
    ipcom_tmo2 serverTmo6;                          // closes serverFd6 when idle
    uint32_t sockTimeout;                           // idle time of both sockets, milliseconds
    uint64_t useCount;                              // queries forced out through this device; a counter
    uint64_t is_down;                               // 0: link up; both threads, by server_if_link_state
    int64_t made_at;                                // nanoseconds of the timer service's clock
    line_counters counters;
    line_counters counters6;
};
static_assert(offsetof(dnsproxy_server_if, link) == 0);

// Adds a device with its servers ("lo" is never entered and counts as done). noV4 or noV6 equal to 1: the
// servers of that family are not taken from the arguments; the IPv6 pointers may be null only then. For a
// device that is there, only its IPv6 servers are replaced, and DNSPROXY_EEXISTS is returned. Otherwise 0,
// DNSPROXY_ENOMEMORY, DNSPROXY_ERESOURCE, or DNSPROXY_EINVALID for a name above 15 characters (a shortened
// one could be another device's).
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

// The link states, which two threads use: of one device, and whether at the last change no line was up.
inline uint64_t server_if_link_state(const dnsproxy_server_if *sif)
{
    return __atomic_load_n(&sif->is_down, __ATOMIC_RELAXED);
}

inline bool server_if_is_down(const dnsproxy_server_if *sif)
{
    return server_if_link_state(sif) != 0;
}

inline bool server_if_all_down()
{
    return __atomic_load_n(&dnsproxy_data.allServerIfDown, __ATOMIC_RELAXED) == 1;
}

// The latter once a change in progress is complete.
bool server_if_all_down_now();

// Closes one upstream socket and its idle timer, if the socket is open: the descriptor is then -1.
void dnsproxy_server_if_close(int32_t *fd, ipcom_tmo2 *idle_timer);

// Whether an IPv4 slot holds a server: 1 or 0.
int dnsproxy_server_addr_check(uint64_t slot);

// Whether an IPv6 address in text form is a server: 0 for null and for "::", else 1.
int dnsproxy_check_dnsserver_v6(const char *text);

// Both tables of server_if.cc's side, used by dnsproxy_if_init and dnsproxy_if_deinit.
[[nodiscard]] int server_if_table_init();
void server_if_table_deinit();

#endif
