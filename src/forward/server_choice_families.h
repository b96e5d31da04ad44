// The differences between the IPv4 and the IPv6 form of the free choice.
#ifndef FORWARD_SERVER_CHOICE_FAMILIES_H
#define FORWARD_SERVER_CHOICE_FAMILIES_H

#include "cache/host.h"
#include "core/log.h"
#include "iface/family.h"
#include "net/proxy_socket.h"

struct choice_v4;
struct choice_v6;

template <class Family> constexpr char choice_msg_send[] = "Send packet error.";
template <> inline constexpr char choice_msg_send<choice_v6>[] = "Send IPv6 packet error.";

template <class Family> constexpr char choice_msg_add[] = "Fail to add a entry.";
template <> inline constexpr char choice_msg_add<choice_v6>[] = "Fail to add a IPv6 entry.";

struct choice_v4 : ipv4 {
    using host = host_v4;
    static constexpr char op[] = "dnsproxy_server_if_getServerAddress2";
    static constexpr auto socket_check = dnsproxy_server_socket_check;
    static constexpr bool heeds_link_state = true;

    static void trace_destination(const sockaddr_in &to)
    {
        DNSPROXY_LOG(TRACE, op, 0, "dnsServer:%x", to.sin_addr.s_addr);
    }
    static void trace_sent(const dnsproxy_server_if *sif, const sockaddr_in &to)
    {
        DNSPROXY_LOG(TRACE, op, 0, "iface:%s is up,server:%x send packect", sif->ifname, to.sin_addr.s_addr);
    }
};

struct choice_v6 : ipv6 {
    using host = host_v6;
    static constexpr char op[] = "dnsproxy_server_if_getServerAddress2_v6";
    static constexpr auto socket_check = dnsproxy_server_socket_check_v6;
    static constexpr bool heeds_link_state = false;

    static void trace_destination(const sockaddr_in6 &to)
    {
        if (dnsproxy_log_is_on(DNSPROXY_LOG_TRACE)) {
            char text[DNSPROXY_ADDRESS_TEXT] = {};
            DNSPROXY_LOG(TRACE, op, 0, "dnsServer:%s", inet_ntop(AF_INET6, &to.sin6_addr, text, sizeof text));
        }
    }
    static void trace_sent(const dnsproxy_server_if *, const sockaddr_in6 &) {}
};

#endif
