// The record of one WAN line: its device, DNS servers, upstream sockets, idle timers, link state and
// counters.
#ifndef IFACE_SERVER_RECORD_H
#define IFACE_SERVER_RECORD_H

#include <cstddef>
#include <cstdint>
#include <net/if.h>
#include <netinet/in.h>

#include "core/counters.h"
#include "core/dnsproxy_data.h"
#include "platform/ipcom_list.h"
#include "platform/ipcom_tmo2.h"

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

#endif
