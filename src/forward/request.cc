#include "forward/request.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>

#include "cache/cache_server.h"
#include "core/dns_header.h"
#include "core/read_ahead.h"
#include "core/status.h"
#include "forward/identifier.h"
#include "forward/relay.h"
#include "forward/request_families.h"
#include "iface/if_show.h"
#include "iface/listen_if.h"
#include "iface/server_slot.h"
#include "iface/upstream_socket.h"

namespace {

// One query, with the device that it came in on.
template <class Family> struct query {
    dns_datagram *received;
    int ifindex;                      // 0: not told
    char name[DNSPROXY_ARRIVAL_NAME]; // of that device, or of the one that stands for it
};

template <class Family> int arrival_ifindex(const cmsghdr *info)
{
    if (info == nullptr || info->cmsg_level != Family::pktinfo_level ||
        info->cmsg_type != Family::pktinfo_type)
        return 0;
    typename Family::pktinfo arrival;
    memcpy(&arrival, CMSG_DATA(info), sizeof arrival);
    return Family::ifindex(arrival);
}

template <size_t Size> bool begins_with(const char *text, const char (&head)[Size])
{
    return strncmp(text, head, Size - 1) == 0;
}

// The rule for the device that the query came in on; nullptr: it is not served.
template <class Family> const dnsproxy_listen_if *find_listen_if(query<Family> *q)
{
    memset(q->name, 0, sizeof q->name);
    if (!Family::device_name(q->ifindex, q->name))
        return nullptr;
    Family::trace_arrival(Family::sender(*q->received), q->ifindex, q->name);
    if constexpr (Family::ppp_stands_for_pppoe_server) {
        if (begins_with(q->name, "ppp")) {
            DNSPROXY_LOG(TRACE, Family::op, 0, "%s", "");
            memcpy(q->name, dnsproxy_data.pppoesIfname, sizeof dnsproxy_data.pppoesIfname);
        }
        Family::trace_arrival(Family::sender(*q->received), q->ifindex, q->name);
    }
    return dnsproxy_listen_if_findByname(q->name);
}

template <class Family> int send_free(query<Family> *q, const dnsproxy_listen_if *lif)
{
    dnsproxy_data.specIface = 0;
    DNSPROXY_LOG(TRACE, Family::op, 0, request_msg_free<Family>);
    const auto host = Family::host_of(Family::sender(*q->received));
    int status = server_choice_send(host, q->received->message, q->received->length, lif->polling);
    if constexpr (Family::loopback_asks_both_families) {
        if (begins_with(lif->ifname_receive, "lo")) {
            DNSPROXY_LOG(DEBUG, Family::op, status,
                         "receive a dns requset from loopback, addr:%x,form_ifname:%s",
                         q->received->sender.v4.sin_addr.s_addr, q->name);
            status = server_choice_send(Family::host_in_other_family(host), q->received->message,
                                        q->received->length, lif->polling);
        }
    }
    return status;
}

// Whether a send failed because the device has gone. Over IPv4 it says so itself; over IPv6 it finds no
// route, as for a line that is merely down, and the socket must be asked for its device.
bool device_has_gone(int fd, int error)
{
    char ifname[IF_NAMESIZE];
    socklen_t length = sizeof ifname;
    return error == ENODEV ||
           (getsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, ifname, &length) < 0 && errno == ENODEV);
}

// The device has gone: the next query opens a new socket, on a device that may have come back by then.
template <class Family> void close_dead_socket(dnsproxy_server_if *sif)
{
    DNSPROXY_LOG(TRACE, Family::op, 0, "No such device from stack");
    if (Family::fd(sif) <= 0)
        return;
    DNSPROXY_LOG(TRACE, Family::op, 0, "We will close the socket for reopen it!");
    relay_flush(); // replies that wait may be datagrams of this socket
    upstream_socket_close(&Family::fd(sif), &Family::tmo(sif));
    dnsproxy_server_if_resetCache();
}

// The slot that a forced query goes to. The line's index itself moves by expiries only.
template <class Family> int forced_slot(const dnsproxy_server_if *sif)
{
    const int slot = server_slot_from_index(sif, [&](int at) { return Family::has_server(sif, at); });
    if (slot == DNSPROXY_NO_SLOT)
        DNSPROXY_LOG(DEBUG, Family::op, DNSPROXY_ENOSERVER, request_msg_no_server<Family>);
    else
        DNSPROXY_LOG(TRACE, Family::op, 0, request_msg_slot<Family>, slot);
    return slot;
}

template <class Family> int send_forced(query<Family> *q, const dnsproxy_listen_if *lif)
{
    DNSPROXY_LOG(TRACE, Family::op, 0, "spec iface");
    dnsproxy_data.specIface = 1;
    if constexpr (Family::dumps_forced_queries)
        dnsproxy_if_show();
    dnsproxy_server_if *sif = dnsproxy_server_if_get(lif->out_ifname);
    if (sif == nullptr) {
        DNSPROXY_LOG(TRACE, Family::op, DNSPROXY_ENOOUTGOING, request_msg_no_outgoing<Family>,
                     lif->out_ifname);
        return DNSPROXY_ENOOUTGOING;
    }
    const int slot = forced_slot<Family>(sif);
    if (slot == DNSPROXY_NO_SLOT)
        return DNSPROXY_ENOSERVER;

    const auto key =
        request_cache_key(Family::host_of(Family::sender(*q->received)), dns_id(q->received->message));
    bool repeated = false;
    const uint16_t new_id = query_identify(key, &dnsproxy_data.nextNewId, &repeated);
    dns_set_id(q->received->message, new_id);
    count(&sif->useCount);

    const auto to = Family::destination(sif, slot);
    line_counters &counters = Family::counters(sif);
    int status = Family::socket_check(sif);
    if (status < 0) {
        count(&counters.failed);
        DNSPROXY_LOG(DEBUG, Family::op, status, request_msg_check<Family>, sif->ifname);
        return status;
    }
    Family::trace_forward(to, lif->out_ifname);
    const ssize_t sent = sendto(Family::fd(sif), q->received->message, q->received->length, MSG_DONTWAIT,
                                reinterpret_cast<const sockaddr *>(&to), sizeof to);
    const int error = errno;
    DNSPROXY_LOG(TRACE, Family::op, 0, "sendsize:%d,recvsize:%d,errno:%d", static_cast<int>(sent),
                 static_cast<int>(q->received->length), error);
    if (sent < static_cast<ssize_t>(q->received->length)) {
        count(&counters.failed);
        if (sent < 0 && device_has_gone(Family::fd(sif), error))
            close_dead_socket<Family>(sif);
        DNSPROXY_LOG(ERROR, Family::op, status, request_msg_send<Family>);
        return status;
    }
    count(&counters.slots[slot].sent);
    if (repeated)
        return status;
    status = request_cache_add(key, new_id, sif->ifname, slot);
    if (status < 0)
        DNSPROXY_LOG(ERROR, Family::op, status, "Fail to add a entry.");
    return status;
}

template <class Family> int handle_query()
{
    query<Family> q;
    q.received = read_ahead_take(Family::listen_fd());
    if (q.received == nullptr) {
        DNSPROXY_LOG(ERROR, Family::op, DNSPROXY_ERESOURCE, request_msg_recv<Family>);
        return DNSPROXY_ERESOURCE;
    }
    if (q.received->length < DNSPROXY_ID_SIZE)
        return 0; // no identifier: dropped, and no reason to end the loop's pass
    q.ifindex = arrival_ifindex<Family>(q.received->control);
    const dnsproxy_listen_if *lif = find_listen_if(&q);
    if (lif == nullptr) {
        count(&Family::queries().refused);
        DNSPROXY_LOG(TRACE, Family::op, DNSPROXY_ENOTSERVED, request_msg_not_served<Family>);
        return DNSPROXY_ENOTSERVED;
    }
    const bool forced = lif->specify != 0;
    count(forced ? &Family::queries().forced : &Family::queries().free);
    return forced ? send_forced(&q, lif) : send_free(&q, lif);
}

} // namespace

int dnsproxy_listen_socket_recv()
{
    return handle_query<request_v4>();
}

int dnsproxy_listen_socket_recv_v6()
{
    return handle_query<request_v6>();
}
