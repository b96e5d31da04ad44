#include "net/proxy_socket.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>

#include "core/descriptor.h"
#include "core/log.h"
#include "core/status.h"
#include "iface/upstream_socket.h"
#include "net/proxy_socket_families.h"

namespace {

constexpr char op_open[] = "dnsproxy_listen_socket_open";

template <class Family> int bind_any(int fd, uint16_t port)
{
    const auto address = Family::any(port);
    const int bound = bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    if (bound < 0) {
        DNSPROXY_LOG(ERROR, Family::op_bind, bound, "can't bind to port: %d.\n", static_cast<int>(port));
        DNSPROXY_RETURN(Family::op_bind, DNSPROXY_ERESOURCE);
    }
    DNSPROXY_RETURN(Family::op_bind, bound);
}

template <class Family, size_t N> int set_options(int fd, const std::array<socket_option, N> &options)
{
    for (const socket_option &option : options) {
        const int on = 1;
        const int status = setsockopt(fd, option.level, option.name, &on, sizeof on);
        if (status < 0) {
            DNSPROXY_LOG(ERROR, op_open, status, socket_msg_option<Family>, strerror(errno));
            return status;
        }
    }
    return 0;
}

template <class Family> int bind_listen_socket(int fd)
{
    if (Family::bind_port(fd, DNSPROXY_DNS_PORT) < 0) {
        DNSPROXY_LOG(ERROR, op_open, DNSPROXY_ERESOURCE, socket_msg_bind<Family>);
        return DNSPROXY_ERESOURCE;
    }
    return 0;
}

template <class Family> int open_listen_socket()
{
    int32_t &fd = Family::listen_fd();
    fd = descriptor_socket(Family::af, SOCK_DGRAM, IPPROTO_UDP);
    if (fd < 0) {
        DNSPROXY_LOG(ERROR, op_open, DNSPROXY_ERESOURCE, socket_msg_create<Family>);
        return DNSPROXY_ERESOURCE;
    }
    int status = set_options<Family>(fd, Family::before_bind);
    if (status == 0)
        status = bind_listen_socket<Family>(fd);
    if (status == 0)
        status = set_options<Family>(fd, Family::after_bind);
    if (status < 0)
        descriptor_close(&fd);
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

template <class Family> int start_idle_time(dnsproxy_server_if *sif)
{
    const int armed =
        ipcom_tmo2_request(dnsproxy_data.tmo2Head, &Family::tmo(sif), Family::on_idle, sif, sif->sockTimeout);
    if (armed < 0)
        DNSPROXY_LOG(ERROR, Family::op_check, armed, socket_msg_timer<Family>, sif->ifname);
    return armed < 0 ? DNSPROXY_ERESOURCE : armed;
}

template <class Family> int open_upstream(dnsproxy_server_if *sif)
{
    DNSPROXY_LOG(DEBUG, Family::op_check, 0, socket_msg_not_open<Family>);
    if (upstream_socket_open(&Family::fd(sif), Family::af) < 0) {
        DNSPROXY_LOG(ERROR, Family::op_check, DNSPROXY_ERESOURCE, socket_msg_no_socket<Family>, sif->ifname);
        return DNSPROXY_ERESOURCE;
    }
    int status = bind_to_device(Family::fd(sif), sif);
    if (status < 0)
        DNSPROXY_LOG(ERROR, Family::op_check, status, socket_msg_no_device<Family>, sif->ifname);
    else
        status = start_idle_time<Family>(sif);
    if (status < 0) {
        upstream_socket_close(&Family::fd(sif), &Family::tmo(sif));
        return DNSPROXY_ERESOURCE;
    }
    return status;
}

template <class Family> int check(dnsproxy_server_if *sif)
{
    if (Family::fd(sif) <= 0)
        DNSPROXY_RETURN(Family::op_check, open_upstream<Family>(sif));
    DNSPROXY_LOG(TRACE, Family::op_check, 0, socket_msg_open<Family>);
    ipcom_tmo2_cancel(&Family::tmo(sif));
    DNSPROXY_RETURN(Family::op_check, start_idle_time<Family>(sif));
}

template <class Family> int idle(dnsproxy_server_if *sif)
{
    DNSPROXY_LOG(DEBUG, Family::op_timeout, 0, "Time out , we will close dns server socket(ifname:%s).",
                 sif->ifname);
    upstream_socket_close(&Family::fd(sif), &Family::tmo(sif));
    DNSPROXY_RETURN(Family::op_timeout, 0);
}

} // namespace

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
