// The differences between replies from IPv4 and from IPv6 servers.
#ifndef FORWARD_REPLY_FAMILIES_H
#define FORWARD_REPLY_FAMILIES_H

#include "cache/request_cache.h"
#include "core/descriptor.h"
#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "forward/relay.h"
#include "iface/family.h"

struct reply_v4;
struct reply_v6;

template <class Family> constexpr char reply_msg_reply[] = "Recv a dnsproxy reply from if(%s).";
template <> inline constexpr char reply_msg_reply<reply_v6>[] = "Recv a IPv6 dnsproxy reply from if(%s).";

template <class Family> constexpr char reply_msg_recv[] = "recvfrom data error(ifname:%s).";
template <> inline constexpr char reply_msg_recv<reply_v6>[] = "recvfrom IPv6 data error(ifname:%s).";

template <class Family> constexpr char reply_msg_unknown[] = "new_id %d is not our packet.";
template <> inline constexpr char reply_msg_unknown<reply_v6>[] = "new_id %d is not our IPv6 packet.";

inline way_back way_to_v4_host(uint64_t from, uint16_t port)
{
    way_back to = {.fd = dnsproxy_data.listenFd, .size = sizeof to.address.v4, .address = {.v4 = {}}};
    to.address.v4.sin_family = AF_INET;
    to.address.v4.sin_port = port;
    to.address.v4.sin_addr.s_addr = static_cast<uint32_t>(from);
    return to;
}

inline way_back way_to_v6_host(const in6_addr &from6, uint16_t port)
{
    way_back to = {.fd = dnsproxy_data.listenFd6, .size = sizeof to.address.v6, .address = {.v6 = {}}};
    to.address.v6.sin6_family = AF_INET6;
    to.address.v6.sin6_port = port;
    to.address.v6.sin6_addr = from6;
    return to;
}

struct reply_v4 : ipv4 {
    static constexpr auto find_by_id = dnsproxy_entry_findById;

    static way_back way_to_host(const char *, const dnsproxy_cache_entry &entry)
    {
        return way_to_v4_host(entry.from, entry.port);
    }

    // A reply that is dropped ends the line's turn: its IPv6 socket is served in the next pass.
    static bool outcome_matters(const dnsproxy_server_if *sif, const fd_set *ready, int count)
    {
        return sif->serverFd6 > 0 && descriptor_is_ready(sif->serverFd6, ready, count);
    }
};

struct reply_v6 : ipv6 {
    static constexpr auto find_by_id = dnsproxy_entry_findById_v6;

    // A query that came in over IPv4 on loopback is answered over IPv4.
    static way_back way_to_host(const char *op, const dnsproxy_cache_entry_v6 &entry)
    {
        if (entry.from == 0)
            return way_to_v6_host(entry.from6, entry.port);
        DNSPROXY_LOG(DEBUG, op, 0, "Send dns reply packet to loopback.");
        return way_to_v4_host(entry.from, entry.port);
    }

    static bool outcome_matters(const dnsproxy_server_if *, const fd_set *, int) { return false; }
};

#endif
