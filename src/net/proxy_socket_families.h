// The differences between the IPv4 and the IPv6 sockets.
#ifndef NET_PROXY_SOCKET_FAMILIES_H
#define NET_PROXY_SOCKET_FAMILIES_H

#include <array>

#include "core/dnsproxy_data.h"
#include "iface/family.h"
#include "net/proxy_socket.h"

struct socket_v4;
struct socket_v6;

template <class Family> constexpr char socket_msg_create[] = "Fail to create client socket.";
template <> inline constexpr char socket_msg_create<socket_v6>[] = "Fail to create IPv6 client socket.";

template <class Family> constexpr char socket_msg_bind[] = "Fail to bind dns port.";
template <> inline constexpr char socket_msg_bind<socket_v6>[] = "Fail to bind IPv6 dns port.";

template <class Family> constexpr char socket_msg_option[] = "ipcom_setsockopt error: %s. Terminating.\n";
template <>
inline constexpr char socket_msg_option<socket_v6>[] = "IPv6 ipcom_setsockopt error: %s. Terminating.\n";

template <class Family> constexpr char socket_msg_open[] = "The server socket is open.";
template <> inline constexpr char socket_msg_open<socket_v6>[] = "The server IPv6 socket is open.";

template <class Family>
constexpr char socket_msg_not_open[] = "The server socket is not open, we will open it.";
template <>
inline constexpr char socket_msg_not_open<socket_v6>[] =
    "The IPv6 server socket is not open, we will open it.";

template <class Family> constexpr char socket_msg_no_socket[] = "Fail to open dns server fd(ifname:%s).";
template <>
inline constexpr char socket_msg_no_socket<socket_v6>[] = "Fail to open IPv6 dns server fd(ifname:%s).";

template <class Family>
constexpr char socket_msg_no_device[] = "can't setsockopt the socket sock_server_udp for %s\n";
template <>
inline constexpr char socket_msg_no_device<socket_v6>[] =
    "can't setsockopt the IPv6 socket sock_server_udp for %s\n";

template <class Family> constexpr char socket_msg_timer[] = "Fail to set tmo2(ifname:%s).";
template <> inline constexpr char socket_msg_timer<socket_v6>[] = "Fail to set IPv6 tmo2(ifname:%s).";

struct socket_option {
    int level;
    int name;
};

struct socket_v4 : ipv4 {
    static constexpr char op_bind[] = "dnsproxy_socket_bind";
    static constexpr char op_check[] = "dnsproxy_server_socket_check";
    static constexpr char op_timeout[] = "dnsproxy_server_socket_timeout";
    static constexpr auto bind_port = dnsproxy_socket_bind;
    static constexpr auto on_idle = dnsproxy_server_socket_timeout;

    static constexpr std::array<socket_option, 0> before_bind = {};
    static constexpr std::array<socket_option, 1> after_bind = {{{IPPROTO_IP, IP_PKTINFO}}};

    static int32_t &listen_fd() { return dnsproxy_data.listenFd; }

    static sockaddr_in any(uint16_t port)
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_ANY);
        return address;
    }
};

struct socket_v6 : ipv6 {
    static constexpr char op_bind[] = "dnsproxy_socket_bind_V6";
    static constexpr char op_check[] = "dnsproxy_server_socket_check_v6";
    static constexpr char op_timeout[] = "dnsproxy_server_socket_timeout_v6";
    static constexpr auto bind_port = dnsproxy_socket_bind_V6;
    static constexpr auto on_idle = dnsproxy_server_socket_timeout_v6;

    static constexpr std::array<socket_option, 2> before_bind = {
        {{IPPROTO_IPV6, IPV6_V6ONLY}, {IPPROTO_IPV6, IPV6_RECVPKTINFO}}};
    static constexpr std::array<socket_option, 0> after_bind = {};

    static int32_t &listen_fd() { return dnsproxy_data.listenFd6; }

    static sockaddr_in6 any(uint16_t port)
    {
        sockaddr_in6 address = {};
        address.sin6_family = AF_INET6;
        address.sin6_port = htons(port);
        address.sin6_addr = in6addr_any;
        return address;
    }
};

#endif
