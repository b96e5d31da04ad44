// The differences between replies from IPv4 and from IPv6 servers.
#ifndef FORWARD_REPLY_FAMILIES_H
#define FORWARD_REPLY_FAMILIES_H

#include <sys/socket.h>

#include "cache/request_cache.h"
#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "iface/family.h"

struct reply_v4;
struct reply_v6;

template <class Family> constexpr char reply_msg_reply[] = "Recv a dnsproxy reply from if(%s).";
template <> inline constexpr char reply_msg_reply<reply_v6>[] = "Recv a IPv6 dnsproxy reply from if(%s).";

template <class Family> constexpr char reply_msg_recv[] = "recvfrom data error(ifname:%s).";
template <> inline constexpr char reply_msg_recv<reply_v6>[] = "recvfrom IPv6 data error(ifname:%s).";

template <class Family> constexpr char reply_msg_unknown[] = "new_id %d is not our packet.";
template <> inline constexpr char reply_msg_unknown<reply_v6>[] = "new_id %d is not our IPv6 packet.";

// Ports and addresses in network order.
template <class Address> bool reply_send(int fd, const Address &to, const uint8_t *message, size_t length)
{
    return sendto(fd, message, length, MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&to), sizeof to) >= 0;
}

inline bool reply_to_v4_host(uint64_t from, uint16_t port, const uint8_t *message, size_t length)
{
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = port;
    to.sin_addr.s_addr = static_cast<uint32_t>(from);
    return reply_send(dnsproxy_data.listenFd, to, message, length);
}

inline bool reply_to_v6_host(const in6_addr &from6, uint16_t port, const uint8_t *message, size_t length)
{
    sockaddr_in6 to = {};
    to.sin6_family = AF_INET6;
    to.sin6_port = port;
    to.sin6_addr = from6;
    return reply_send(dnsproxy_data.listenFd6, to, message, length);
}

struct reply_v4 : ipv4 {
    static constexpr auto find_by_id = dnsproxy_entry_findById;

    static bool relay(const char *, const dnsproxy_cache_entry &entry, const uint8_t *message, size_t length)
    {
        return reply_to_v4_host(entry.from, entry.port, message, length);
    }
};

struct reply_v6 : ipv6 {
    static constexpr auto find_by_id = dnsproxy_entry_findById_v6;

    // A query that came in over IPv4 on loopback is answered over IPv4.
    static bool relay(const char *op, const dnsproxy_cache_entry_v6 &entry, const uint8_t *message,
                      size_t length)
    {
        if (entry.from == 0)
            return reply_to_v6_host(entry.from6, entry.port, message, length);
        const bool sent = reply_to_v4_host(entry.from, entry.port, message, length);
        DNSPROXY_LOG(DEBUG, op, 0, "Send dns reply packet to loopback.");
        return sent;
    }
};

#endif
