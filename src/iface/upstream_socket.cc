#include "iface/upstream_socket.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <utility>

#include "core/descriptor.h"
#include "core/dnsproxy_data.h"

int upstream_socket_open(int32_t *fd, int family)
{
    *fd = descriptor_socket(family, SOCK_DGRAM, IPPROTO_UDP);
    if (*fd >= 0)
        dnsproxy_data.upstreamFdsChanged = true;
    return *fd;
}

void upstream_socket_close(int32_t *fd, ipcom_tmo2 *idle_timer)
{
    if (*fd > 0) {
        ipcom_tmo2_cancel(idle_timer);
        dnsproxy_data.upstreamFdsChanged = true;
    }
    descriptor_close(fd);
}

bool upstream_sockets_changed()
{
    return std::exchange(dnsproxy_data.upstreamFdsChanged, false);
}
