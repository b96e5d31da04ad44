// The differences between queries that come in over IPv4 and over IPv6.
#ifndef FORWARD_REQUEST_FAMILIES_H
#define FORWARD_REQUEST_FAMILIES_H

#include <net/if.h>
#include <sys/ioctl.h>

#include "cache/host.h"
#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "forward/server_choice.h"
#include "iface/family.h"
#include "iface/ifname.h"
#include "net/intf_monitor.h"
#include "net/proxy_socket.h"

struct request_v4;
struct request_v6;

template <class Family> constexpr char request_msg_recv[] = "Recv a dns request error.";
template <> inline constexpr char request_msg_recv<request_v6>[] = "Recv a IPv6 dns request error.";

template <class Family>
constexpr char request_msg_not_served[] =
    "The interface which the dns request packet received didn't open the dns service.";
template <>
inline constexpr char request_msg_not_served<request_v6>[] =
    "The interface which the IPv6 dns request packet received didn't open the dns service.";

template <class Family> constexpr char request_msg_free[] = "no dnsserver,no server if";
template <> inline constexpr char request_msg_free<request_v6>[] = "no IPv6 dnsserver,no server if";

template <class Family>
constexpr char request_msg_no_outgoing[] =
    "Has specify dns server, but can not get the dns server address(outIfname:%s).";
template <>
inline constexpr char request_msg_no_outgoing<request_v6>[] =
    "Has specify IPv 6 dns server, but can not get the dns server address(outIfname:%s).";

template <class Family> constexpr char request_msg_slot[] = "The %d dns server address is ok.";
template <> inline constexpr char request_msg_slot<request_v6>[] = "The %d IPv6 dns server address is ok.";

template <class Family>
constexpr char request_msg_no_server[] =
    "Although has specify the dns server if, but can not get dns server address.";
template <>
inline constexpr char request_msg_no_server<request_v6>[] =
    "Although has specify the IPv6 dns server if, but can not get dns server address.";

template <class Family> constexpr char request_msg_check[] = "Fail to check server socket(ifname:%s).";
template <>
inline constexpr char request_msg_check<request_v6>[] = "Fail to check IPv6 server socket(ifname:%s).";

template <class Family> constexpr char request_msg_send[] = "Send packet error.";
template <> inline constexpr char request_msg_send<request_v6>[] = "IPv6 Send packet error.";

constexpr size_t DNSPROXY_ARRIVAL_NAME = 32; // buffer for the name of the device that a query came in on

struct request_v4 : ipv4 {
    using host = host_v4;
    static constexpr char op[] = "dnsproxy_listen_socket_recv";
    static constexpr auto socket_check = dnsproxy_server_socket_check;
    static constexpr bool ppp_stands_for_pppoe_server = true;
    static constexpr bool loopback_asks_both_families = true;
    static constexpr bool dumps_forced_queries = false;

    using pktinfo = in_pktinfo;
    static constexpr int pktinfo_level = IPPROTO_IP;
    static constexpr int pktinfo_type = IP_PKTINFO;

    static int ifindex(const in_pktinfo &info) { return info.ipi_ifindex; }
    static int listen_fd() { return dnsproxy_data.listenFd; }
    static query_counters &queries() { return dnsproxy_data.queryCounters; }

    static bool device_name(int ifindex, char *name)
    {
        return dns_if_indextoname(ifindex, name, static_cast<int>(DNSPROXY_ARRIVAL_NAME)) == 0;
    }

    static host_v4 host_of(const sockaddr_in &sender)
    {
        return {.from = sender.sin_addr.s_addr, .port = sender.sin_port};
    }

    // The same host as it asks the other family's servers; their replies go back over IPv4.
    static host_v6 host_in_other_family(const host_v4 &host)
    {
        return {.from = host.from, .from6 = {}, .port = host.port};
    }

    static void trace_arrival(const sockaddr_in &sender, int, const char *name)
    {
        DNSPROXY_LOG(TRACE, op, 0, "addr:%x,form_ifname:%s", sender.sin_addr.s_addr, name);
    }

    static void trace_forward(const sockaddr_in &to, const char *out_ifname)
    {
        const uint32_t address = to.sin_addr.s_addr;
        DNSPROXY_LOG(TRACE, op, 0, "send packet to dnsserver:%x,ifname_send:%s", address, out_ifname);
        DNSPROXY_LOG(TRACE, op, 0, "iface:%s is up,server:%x send packect", out_ifname, address);
    }
};

struct request_v6 : ipv6 {
    using host = host_v6;
    static constexpr char op[] = "dnsproxy_listen_socket_recv_v6";
    static constexpr auto socket_check = dnsproxy_server_socket_check_v6;
    static constexpr bool ppp_stands_for_pppoe_server = false;
    static constexpr bool loopback_asks_both_families = false;
    static constexpr bool dumps_forced_queries = true;

    using pktinfo = in6_pktinfo;
    static constexpr int pktinfo_level = IPPROTO_IPV6;
    static constexpr int pktinfo_type = IPV6_PKTINFO;

    static int ifindex(const in6_pktinfo &info) { return static_cast<int>(info.ipi6_ifindex); }
    static int listen_fd() { return dnsproxy_data.listenFd6; }
    static query_counters &queries() { return dnsproxy_data.queryCounters6; }

    // Asks the kernel as if_indextoname does, on a socket that is open already.
    static bool device_name(int ifindex, char *name)
    {
        ifreq request = {};
        request.ifr_ifindex = ifindex;
        if (ioctl(dnsproxy_data.listenFd6, SIOCGIFNAME, &request) < 0)
            return false;
        ifname_copy(name, request.ifr_name);
        return true;
    }

    static host_v6 host_of(const sockaddr_in6 &sender)
    {
        return {.from = 0, .from6 = sender.sin6_addr, .port = sender.sin6_port};
    }

    static void trace_arrival(const sockaddr_in6 &, int ifindex, const char *name)
    {
        DNSPROXY_LOG(TRACE, op, 0, "form_ifindex:%d,form_ifname:%s", ifindex, name);
    }

    static void trace_forward(const sockaddr_in6 &to, const char *out_ifname)
    {
        if (dnsproxy_log_is_on(DNSPROXY_LOG_TRACE)) {
            char text[DNSPROXY_ADDRESS_TEXT] = {};
            DNSPROXY_LOG(TRACE, op, 0, "send packet to IPv6 dnsserver:%s,ifname_send:%s",
                         inet_ntop(AF_INET6, &to.sin6_addr, text, sizeof text), out_ifname);
        }
    }
};

#endif
