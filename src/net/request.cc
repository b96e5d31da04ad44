#include "net/request.h"

#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "cache/cache_server.h"
#include "cache/query_host.h"
#include "cache/server_choice.h"
#include "core/dns_header.h"
#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "core/status.h"
#include "iface/if_show.h"
#include "iface/ifname.h"
#include "iface/listen_if.h"
#include "net/intf_monitor.h"
#include "net/proxy_socket.h"

namespace {

constexpr size_t control_size = 256;
constexpr size_t name_size = 32;

// One query as it was received.
template <class F> struct query {
    uint8_t message[DNSPROXY_MESSAGE_SIZE];
    size_t length;
    typename F::sockaddr_type sender;
    int ifindex;          // device that it came in on; 0: not told
    char name[name_size]; // that device, or the one that stands for it
};

struct request_v4 : ipv4 {
    using host_type = query_host_v4;
    using query_type = query<request_v4>;
    static constexpr auto listen_fd = &dnsproxy_data::listenFd;
    static constexpr auto queries = &dnsproxy_data::queryCounters;
    static constexpr auto socket_check = dnsproxy_server_socket_check;
    static constexpr int pktinfo_level = IPPROTO_IP;
    static constexpr int pktinfo_type = IP_PKTINFO;
    using pktinfo = in_pktinfo;
    static constexpr bool ppp_stands_for_pppoe_server = true;
    static constexpr bool loopback_asks_both_families = true;
    static constexpr bool dumps_forced_queries = false;

    static constexpr char op[] = "dnsproxy_listen_socket_recv";
    static constexpr char msg_recv[] = "Recv a dns request error.";
    static constexpr char msg_not_served[] =
        "The interface which the dns request packet received didn't open the dns service.";
    static constexpr char msg_free[] = "no dnsserver,no server if";
    static constexpr char msg_no_outgoing[] =
        "Has specify dns server, but can not get the dns server address(outIfname:%s).";
    static constexpr char msg_slot[] = "The %d dns server address is ok.";
    static constexpr char msg_no_server[] =
        "Although has specify the dns server if, but can not get dns server address.";
    static constexpr char msg_check[] = "Fail to check server socket(ifname:%s).";
    static constexpr char msg_send[] = "Send packet error.";

    static int ifindex(const in_pktinfo &info) { return info.ipi_ifindex; }

    static bool device_name(int ifindex, char *name)
    {
        return dns_if_indextoname(ifindex, name, static_cast<int>(name_size)) == 0;
    }

    static host_type host(const sockaddr_in &sender)
    {
        return {.from = sender.sin_addr.s_addr, .port = sender.sin_port};
    }

    static void trace_arrival(const query_type &q)
    {
        DNSPROXY_LOG(TRACE, op, 0, "addr:%x,form_ifname:%s", q.sender.sin_addr.s_addr, q.name);
    }

    static void trace_forward(const sockaddr_in &to, const char *out_ifname)
    {
        const uint32_t address = to.sin_addr.s_addr;
        DNSPROXY_LOG(TRACE, op, 0, "send packet to dnsserver:%x,ifname_send:%s", address, out_ifname);
        DNSPROXY_LOG(TRACE, op, 0, "iface:%s is up,server:%x send packect", out_ifname, address);
    }

    static int choose(query_type *q, uint32_t polling)
    {
        const host_type h = host(q->sender);
        return dnsproxy_server_if_getServerAddress2(dnsproxy_server_addr_check, static_cast<int>(q->length),
                                                    q->message, h.from, h.port, &dnsproxy_data.nextNewId,
                                                    polling);
    }

    // A query of the router itself, sent on to the IPv6 servers as well; its reply goes back over IPv4.
    static int choose_other_family(query_type *q, uint32_t polling)
    {
        const host_type h = host(q->sender);
        const sockaddr_in6 none = {};
        return dnsproxy_server_if_getServerAddress2_v6(dnsproxy_check_dnsserver_v6,
                                                       static_cast<int>(q->length), q->message, h.from, &none,
                                                       h.port, &dnsproxy_data.nextNewId, polling);
    }
};

struct request_v6 : ipv6 {
    using host_type = query_host_v6;
    using query_type = query<request_v6>;
    static constexpr auto listen_fd = &dnsproxy_data::listenFd6;
    static constexpr auto queries = &dnsproxy_data::queryCounters6;
    static constexpr auto socket_check = dnsproxy_server_socket_check_v6;
    static constexpr int pktinfo_level = IPPROTO_IPV6;
    static constexpr int pktinfo_type = IPV6_PKTINFO;
    using pktinfo = in6_pktinfo;
    static constexpr bool ppp_stands_for_pppoe_server = false;
    static constexpr bool loopback_asks_both_families = false;
    static constexpr bool dumps_forced_queries = true;

    static constexpr char op[] = "dnsproxy_listen_socket_recv_v6";
    static constexpr char msg_recv[] = "Recv a IPv6 dns request error.";
    static constexpr char msg_not_served[] =
        "The interface which the IPv6 dns request packet received didn't open the dns service.";
    static constexpr char msg_free[] = "no IPv6 dnsserver,no server if";
    static constexpr char msg_no_outgoing[] =
        "Has specify IPv 6 dns server, but can not get the dns server address(outIfname:%s).";
    static constexpr char msg_slot[] = "The %d IPv6 dns server address is ok.";
    static constexpr char msg_no_server[] =
        "Although has specify the IPv6 dns server if, but can not get dns server address.";
    static constexpr char msg_check[] = "Fail to check IPv6 server socket(ifname:%s).";
    static constexpr char msg_send[] = "IPv6 Send packet error.";

    static int ifindex(const in6_pktinfo &info) { return static_cast<int>(info.ipi6_ifindex); }

    // Asks the kernel: what if_indextoname does, on a socket that is open already.
    static bool device_name(int ifindex, char *name)
    {
        ifreq request = {};
        request.ifr_ifindex = ifindex;
        if (ioctl(dnsproxy_data.listenFd6, SIOCGIFNAME, &request) < 0)
            return false;
        ifname_copy(name, request.ifr_name);
        return true;
    }

    static host_type host(const sockaddr_in6 &sender)
    {
        return {.from = 0, .client = &sender, .port = sender.sin6_port};
    }

    static void trace_arrival(const query_type &q)
    {
        DNSPROXY_LOG(TRACE, op, 0, "form_ifindex:%d,form_ifname:%s", q.ifindex, q.name);
    }

    static void trace_forward(const sockaddr_in6 &to, const char *out_ifname)
    {
        if (dnsproxy_log_is_on(DNSPROXY_LOG_TRACE)) {
            char text[DNSPROXY_ADDRESS_TEXT] = {};
            DNSPROXY_LOG(TRACE, op, 0, "send packet to IPv6 dnsserver:%s,ifname_send:%s",
                         inet_ntop(AF_INET6, &to.sin6_addr, text, sizeof text), out_ifname);
        }
    }

    static int choose(query_type *q, uint32_t polling)
    {
        const host_type h = host(q->sender);
        return dnsproxy_server_if_getServerAddress2_v6(dnsproxy_check_dnsserver_v6,
                                                       static_cast<int>(q->length), q->message, h.from,
                                                       h.client, h.port, &dnsproxy_data.nextNewId, polling);
    }
};

bool begins_with(const char *text, const char *head)
{
    while (*head != '\0' && *text == *head) {
        text++;
        head++;
    }
    return *head == '\0';
}

// Receives one datagram with the device that it came in on; false: nothing was received.
template <class F> bool receive(query<F> *q)
{
    alignas(cmsghdr) char control[control_size];
    iovec data = {.iov_base = q->message, .iov_len = sizeof q->message};
    msghdr header = {};
    header.msg_name = &q->sender;
    header.msg_namelen = sizeof q->sender;
    header.msg_iov = &data;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    const ssize_t length = recvmsg(dnsproxy_data.*F::listen_fd, &header, MSG_DONTWAIT);
    if (length < 0)
        return false;
    q->length = static_cast<size_t>(length);
    q->ifindex = 0;
    const cmsghdr *info = CMSG_FIRSTHDR(&header);
    if (info != nullptr && info->cmsg_level == F::pktinfo_level && info->cmsg_type == F::pktinfo_type) {
        typename F::pktinfo arrival;
        memcpy(&arrival, CMSG_DATA(info), sizeof arrival);
        q->ifindex = F::ifindex(arrival);
    }
    return true;
}

// The rule for the device that the query came in on; nullptr: it is not served.
template <class F> const dnsproxy_listen_if *find_listen_if(query<F> *q)
{
    memset(q->name, 0, sizeof q->name);
    if (!F::device_name(q->ifindex, q->name))
        return nullptr;
    F::trace_arrival(*q);
    if constexpr (F::ppp_stands_for_pppoe_server) {
        if (begins_with(q->name, "ppp")) {
            DNSPROXY_LOG(TRACE, F::op, 0, "%s", "");
            memcpy(q->name, dnsproxy_data.pppoesIfname, sizeof dnsproxy_data.pppoesIfname);
        }
        F::trace_arrival(*q);
    }
    return dnsproxy_listen_if_findByname(q->name);
}

template <class F> int send_free(query<F> *q, const dnsproxy_listen_if *lif)
{
    dnsproxy_data.specIface = 0;
    DNSPROXY_LOG(TRACE, F::op, 0, F::msg_free);
    int status = F::choose(q, lif->polling);
    if constexpr (F::loopback_asks_both_families) {
        if (begins_with(lif->ifname_receive, "lo")) {
            DNSPROXY_LOG(DEBUG, F::op, status, "receive a dns requset from loopback, addr:%x,form_ifname:%s",
                         q->sender.sin_addr.s_addr, q->name);
            status = F::choose_other_family(q, lif->polling);
        }
    }
    return status;
}

constexpr int no_slot = -1;

template <class F> int first_server(const dnsproxy_server_if *sif, int begin, int end)
{
    for (int slot = begin; slot < end && slot < DNSPROXY_SERVER_SLOTS; slot++) {
        if (F::has_server(sif, slot)) {
            DNSPROXY_LOG(TRACE, F::op, 0, F::msg_slot, slot);
            return slot;
        }
    }
    return no_slot;
}

// From the device's index upwards, else below it. The index itself moves by expiries only.
template <class F> int forced_slot(const dnsproxy_server_if *sif)
{
    const int slot = first_server<F>(sif, sif->dnsIndex, DNSPROXY_SERVER_SLOTS);
    return slot != no_slot ? slot : first_server<F>(sif, 0, sif->dnsIndex);
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
template <class F> void close_dead_socket(dnsproxy_server_if *sif)
{
    DNSPROXY_LOG(TRACE, F::op, 0, "No such device from stack");
    if (sif->*F::fd <= 0)
        return;
    DNSPROXY_LOG(TRACE, F::op, 0, "We will close the socket for reopen it!");
    dnsproxy_server_if_close(&(sif->*F::fd), &(sif->*F::tmo));
    dnsproxy_server_if_resetCache();
}

template <class F> int send_forced(query<F> *q, const dnsproxy_listen_if *lif)
{
    DNSPROXY_LOG(TRACE, F::op, 0, "spec iface");
    dnsproxy_data.specIface = 1;
    if constexpr (F::dumps_forced_queries)
        dnsproxy_if_show();
    dnsproxy_server_if *sif = dnsproxy_server_if_get(lif->out_ifname);
    if (sif == nullptr) {
        DNSPROXY_LOG(TRACE, F::op, DNSPROXY_ENOOUTGOING, F::msg_no_outgoing, lif->out_ifname);
        return DNSPROXY_ENOOUTGOING;
    }
    const int slot = forced_slot<F>(sif);
    if (slot == no_slot) {
        DNSPROXY_LOG(DEBUG, F::op, DNSPROXY_ENOSERVER, F::msg_no_server);
        return DNSPROXY_ENOSERVER;
    }

    const typename F::host_type host = F::host(q->sender);
    const uint16_t id = dns_id(q->message);
    bool repeated = false;
    const uint16_t new_id = query_identify(host, id, &dnsproxy_data.nextNewId, &repeated);
    dns_set_id(q->message, new_id);
    count(&sif->useCount);

    const auto to = F::destination(sif, slot);
    line_counters *counters = &(sif->*F::counters);
    int status = F::socket_check(sif);
    if (status < 0) {
        count(&counters->failed);
        DNSPROXY_LOG(DEBUG, F::op, status, F::msg_check, sif->ifname);
        return status;
    }
    F::trace_forward(to, lif->out_ifname);
    const ssize_t sent = sendto(sif->*F::fd, q->message, q->length, MSG_DONTWAIT,
                                reinterpret_cast<const sockaddr *>(&to), sizeof to);
    const int error = errno;
    DNSPROXY_LOG(TRACE, F::op, 0, "sendsize:%d,recvsize:%d,errno:%d", static_cast<int>(sent),
                 static_cast<int>(q->length), error);
    if (sent < static_cast<ssize_t>(q->length)) {
        count(&counters->failed);
        if (sent < 0 && device_has_gone(sif->*F::fd, error))
            close_dead_socket<F>(sif);
        DNSPROXY_LOG(ERROR, F::op, status, F::msg_send);
        return status;
    }
    count_sent(counters, slot);
    if (repeated)
        return status;
    status = host.remember(id, new_id, sif->ifname, slot);
    if (status < 0)
        DNSPROXY_LOG(ERROR, F::op, status, "Fail to add a entry.");
    return status;
}

template <class F> int handle_query()
{
    query<F> q;
    if (!receive(&q)) {
        DNSPROXY_LOG(ERROR, F::op, DNSPROXY_ERESOURCE, F::msg_recv);
        return DNSPROXY_ERESOURCE;
    }
    if (q.length < DNSPROXY_ID_SIZE)
        return 0; // no identifier: dropped, and no reason to end the loop's pass
    const dnsproxy_listen_if *lif = find_listen_if(&q);
    query_counters *queries = &(dnsproxy_data.*F::queries);
    if (lif == nullptr) {
        count(&queries->refused);
        DNSPROXY_LOG(TRACE, F::op, DNSPROXY_ENOTSERVED, F::msg_not_served);
        return DNSPROXY_ENOTSERVED;
    }
    const bool forced = lif->specify != 0;
    count(forced ? &queries->forced : &queries->free);
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
