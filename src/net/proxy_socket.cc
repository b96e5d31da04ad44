#include "net/proxy_socket.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "core/status.h"
#include "iface/family.h"

namespace {

struct socket_option {
    int level;
    int name;
};

struct socket_v4 : ipv4 {
    static constexpr auto listen_fd = &dnsproxy_data::listenFd;
    static constexpr std::array<socket_option, 0> before_bind = {};
    static constexpr std::array<socket_option, 1> after_bind = {{{IPPROTO_IP, IP_PKTINFO}}};

    static constexpr char op_bind[] = "dnsproxy_socket_bind";
    static constexpr char op_check[] = "dnsproxy_server_socket_check";
    static constexpr char op_timeout[] = "dnsproxy_server_socket_timeout";
    static constexpr char msg_create[] = "Fail to create client socket.";
    static constexpr char msg_bind[] = "Fail to bind dns port.";
    static constexpr char msg_option[] = "ipcom_setsockopt error: %s. Terminating.\n";
    static constexpr char msg_open[] = "The server socket is open.";
    static constexpr char msg_not_open[] = "The server socket is not open, we will open it.";
    static constexpr char msg_no_socket[] = "Fail to open dns server fd(ifname:%s).";
    static constexpr char msg_no_device[] = "can't setsockopt the socket sock_server_udp for %s\n";
    static constexpr char msg_timer[] = "Fail to set tmo2(ifname:%s).";

    static constexpr auto bind_port = dnsproxy_socket_bind;
    static constexpr auto on_idle = dnsproxy_server_socket_timeout;

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
    static constexpr auto listen_fd = &dnsproxy_data::listenFd6;
    static constexpr std::array<socket_option, 2> before_bind = {
        {{IPPROTO_IPV6, IPV6_V6ONLY}, {IPPROTO_IPV6, IPV6_RECVPKTINFO}}};
    static constexpr std::array<socket_option, 0> after_bind = {};

    static constexpr char op_bind[] = "dnsproxy_socket_bind_V6";
    static constexpr char op_check[] = "dnsproxy_server_socket_check_v6";
    static constexpr char op_timeout[] = "dnsproxy_server_socket_timeout_v6";
    static constexpr char msg_create[] = "Fail to create IPv6 client socket.";
    static constexpr char msg_bind[] = "Fail to bind IPv6 dns port.";
    static constexpr char msg_option[] = "IPv6 ipcom_setsockopt error: %s. Terminating.\n";
    static constexpr char msg_open[] = "The server IPv6 socket is open.";
    static constexpr char msg_not_open[] = "The IPv6 server socket is not open, we will open it.";
    static constexpr char msg_no_socket[] = "Fail to open IPv6 dns server fd(ifname:%s).";
    static constexpr char msg_no_device[] = "can't setsockopt the IPv6 socket sock_server_udp for %s\n";
    static constexpr char msg_timer[] = "Fail to set IPv6 tmo2(ifname:%s).";

    static constexpr auto bind_port = dnsproxy_socket_bind_V6;
    static constexpr auto on_idle = dnsproxy_server_socket_timeout_v6;

    static sockaddr_in6 any(uint16_t port)
    {
        sockaddr_in6 address = {};
        address.sin6_family = AF_INET6;
        address.sin6_port = htons(port);
        address.sin6_addr = in6addr_any;
        return address;
    }
};

constexpr char op_open[] = "dnsproxy_listen_socket_open";

void close_fd(int *fd)
{
    (void)close(*fd);
    *fd = -1;
}

template <class F> int bind_any(int fd, uint16_t port)
{
    const auto address = F::any(port);
    const int bound = bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    if (bound < 0) {
        DNSPROXY_LOG(ERROR, F::op_bind, bound, "can't bind to port: %d.\n", static_cast<int>(port));
        DNSPROXY_RETURN(F::op_bind, DNSPROXY_ERESOURCE);
    }
    DNSPROXY_RETURN(F::op_bind, bound);
}

template <class F, size_t N> int set_options(int fd, const std::array<socket_option, N> &options)
{
    for (const socket_option &option : options) {
        const int on = 1;
        const int status = setsockopt(fd, option.level, option.name, &on, sizeof on);
        if (status < 0) {
            DNSPROXY_LOG(ERROR, op_open, status, F::msg_option, strerror(errno));
            return status;
        }
    }
    return 0;
}

template <class F> int bind_listen_socket(int fd)
{
    if (F::bind_port(fd, DNSPROXY_DNS_PORT) < 0) {
        DNSPROXY_LOG(ERROR, op_open, DNSPROXY_ERESOURCE, F::msg_bind);
        return DNSPROXY_ERESOURCE;
    }
    return 0;
}

template <class F> int open_listen_socket()
{
    int *fd = &(dnsproxy_data.*F::listen_fd);
    *fd = net_socket(F::af, SOCK_DGRAM, IPPROTO_UDP);
    if (*fd < 0) {
        DNSPROXY_LOG(ERROR, op_open, DNSPROXY_ERESOURCE, F::msg_create);
        return DNSPROXY_ERESOURCE;
    }
    int status = set_options<F>(*fd, F::before_bind);
    if (status == 0)
        status = bind_listen_socket<F>(*fd);
    if (status == 0)
        status = set_options<F>(*fd, F::after_bind);
    if (status < 0)
        close_fd(fd);
    return status;
}

// Ties the socket to the device. An empty name would untie it and let queries leave by any line: it names no
// device, and is refused as one that is not there.
int bind_to_device(int fd, const dnsproxy_server_if *sif)
{
    if (sif->ifname[0] == '\0') {
        errno = ENODEV;
        return -1;
    }
    return setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, sif->ifname, sizeof sif->ifname);
}

template <class F> int start_idle_time(dnsproxy_server_if *sif)
{
    const int armed =
        ipcom_tmo2_request(dnsproxy_data.tmo2Head, &(sif->*F::tmo), F::on_idle, sif, sif->sockTimeout);
    if (armed < 0)
        DNSPROXY_LOG(ERROR, F::op_check, armed, F::msg_timer, sif->ifname);
    return armed < 0 ? DNSPROXY_ERESOURCE : armed;
}

template <class F> int open_upstream_socket(dnsproxy_server_if *sif)
{
    int *fd = &(sif->*F::fd);
    DNSPROXY_LOG(DEBUG, F::op_check, 0, F::msg_not_open);
    *fd = net_socket(F::af, SOCK_DGRAM, IPPROTO_UDP);
    if (*fd < 0) {
        DNSPROXY_LOG(ERROR, F::op_check, DNSPROXY_ERESOURCE, F::msg_no_socket, sif->ifname);
        return DNSPROXY_ERESOURCE;
    }
    const int bound = bind_to_device(*fd, sif);
    if (bound < 0) {
        DNSPROXY_LOG(ERROR, F::op_check, bound, F::msg_no_device, sif->ifname);
        close_fd(fd);
        return DNSPROXY_ERESOURCE;
    }
    const int armed = start_idle_time<F>(sif);
    if (armed < 0)
        close_fd(fd);
    else
        dnsproxy_data.upstreamFdsChanged = true;
    return armed;
}

template <class F> int check(dnsproxy_server_if *sif)
{
    if (sif->*F::fd <= 0)
        DNSPROXY_RETURN(F::op_check, open_upstream_socket<F>(sif));
    DNSPROXY_LOG(TRACE, F::op_check, 0, F::msg_open);
    ipcom_tmo2_cancel(&(sif->*F::tmo));
    DNSPROXY_RETURN(F::op_check, start_idle_time<F>(sif));
}

template <class F> int idle(dnsproxy_server_if *sif)
{
    DNSPROXY_LOG(DEBUG, F::op_timeout, 0, "Time out , we will close dns server socket(ifname:%s).",
                 sif->ifname);
    dnsproxy_server_if_close(&(sif->*F::fd), &(sif->*F::tmo));
    DNSPROXY_RETURN(F::op_timeout, 0);
}

} // namespace

int net_socket(int family, int type, int protocol)
{
    int fd = socket(family, type | SOCK_CLOEXEC, protocol);
    if (fd >= FD_SETSIZE) {
        close_fd(&fd);
        errno = EMFILE;
    }
    return fd;
}

int dnsproxy_listen_socket_open()
{
    int status = open_listen_socket<socket_v4>();
    if (status == 0)
        status = open_listen_socket<socket_v6>();
    DNSPROXY_RETURN(op_open, status);
}

int dnsproxy_socket_bind(int fd, uint16_t port)
{
    return bind_any<socket_v4>(fd, port);
}

int dnsproxy_socket_bind_V6(int fd, uint16_t port)
{
    return bind_any<socket_v6>(fd, port);
}

int dnsproxy_server_socket_check(dnsproxy_server_if *sif)
{
    return check<socket_v4>(sif);
}

int dnsproxy_server_socket_check_v6(dnsproxy_server_if *sif)
{
    return check<socket_v6>(sif);
}

int dnsproxy_server_socket_timeout(void *sif)
{
    return idle<socket_v4>(static_cast<dnsproxy_server_if *>(sif));
}

int dnsproxy_server_socket_timeout_v6(void *sif)
{
    return idle<socket_v6>(static_cast<dnsproxy_server_if *>(sif));
}
