#include "cache/server_choice.h"

#include <cstring>
#include <sys/socket.h>

#include "cache/query_host.h"
#include "core/dns_header.h"
#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "net/pending_id.h"
#include "net/proxy_socket.h"

namespace {

struct choice_v4 : ipv4 {
    using host = query_host_v4;
    static constexpr bool heeds_link_state = true;
    static constexpr auto socket_check = dnsproxy_server_socket_check;

    static constexpr char op[] = "dnsproxy_server_if_getServerAddress2";
    static constexpr char msg_send[] = "Send packet error.";
    static constexpr char msg_add[] = "Fail to add a entry.";

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
    using host = query_host_v6;
    static constexpr bool heeds_link_state = false;
    static constexpr auto socket_check = dnsproxy_server_socket_check_v6;

    static constexpr char op[] = "dnsproxy_server_if_getServerAddress2_v6";
    static constexpr char msg_send[] = "Send IPv6 packet error.";
    static constexpr char msg_add[] = "Fail to add a IPv6 entry.";

    static void trace_destination(const sockaddr_in6 &to)
    {
        if (dnsproxy_log_is_on(DNSPROXY_LOG_TRACE)) {
            char text[DNSPROXY_ADDRESS_TEXT] = {};
            DNSPROXY_LOG(TRACE, op, 0, "dnsServer:%s", inet_ntop(AF_INET6, &to.sin6_addr, text, sizeof text));
        }
    }
    static void trace_sent(const dnsproxy_server_if *, const sockaddr_in6 &) {}
};

// A query on its way to one or more servers.
template <class F> struct query {
    typename F::host host;
    uint8_t *message;
    size_t length;
    uint16_t *nextId;
    uint16_t id;     // the host's
    uint16_t new_id; // the proxy's, once it is identified
    bool identified;
    bool recorded;
};

// Whether the query went out and is on record. *status is that of the last step that has one.
template <class F> bool send_to(query<F> *q, dnsproxy_server_if *sif, int slot, int *status)
{
    const auto to = F::destination(sif, slot);
    F::trace_destination(to);
    line_counters *counters = &(sif->*F::counters);
    *status = F::socket_check(sif);
    if (*status < 0) {
        count(&counters->failed);
        DNSPROXY_LOG(DEBUG, F::op, *status, "Fail to check server socket(ifname:%s).", sif->ifname);
        return false;
    }
    if (!q->identified) {
        q->new_id = query_identify(q->host, q->id, q->nextId, &q->recorded);
        q->identified = true;
    }
    dns_set_id(q->message, q->new_id);
    const ssize_t sent = sendto(sif->*F::fd, q->message, q->length, MSG_DONTWAIT,
                                reinterpret_cast<const sockaddr *>(&to), sizeof to);
    DNSPROXY_LOG(TRACE, F::op, 0, "sendsize:%d,recv_size:%d", static_cast<int>(sent),
                 static_cast<int>(q->length));
    F::trace_sent(sif, to);
    if (sent < static_cast<ssize_t>(q->length)) {
        count(&counters->failed);
        DNSPROXY_LOG(ERROR, F::op, *status, F::msg_send);
        return false;
    }
    count_sent(counters, slot);
    dnsproxy_pending_id_set(q->new_id);
    if (q->recorded)
        return true;
    *status = q->host.remember(q->id, q->new_id, sif->ifname, slot);
    if (*status < 0) {
        DNSPROXY_LOG(ERROR, F::op, *status, F::msg_add);
        return false;
    }
    q->recorded = true;
    return true;
}

// The walk of one query over the lines. *only_down becomes true when it found no line to use and passed over
// one that is down.
template <class F> int walk_lines(query<F> *q, typename F::slot_check check, bool polling, bool *only_down)
{
    int status = 0;
    bool passed_over = false;
    *only_down = false;
    for (auto *sif = ipcom_first<dnsproxy_server_if>(dnsproxy_data.serverIfList); sif != nullptr;
         sif = ipcom_next(sif)) {
        if (F::heeds_link_state && !polling && server_if_is_down(sif)) {
            DNSPROXY_LOG(DEBUG, F::op, 0, "iface:%s is_down:%d polling:%d", sif->ifname,
                         static_cast<int>(server_if_link_state(sif)), 0);
            passed_over = true;
            continue;
        }
        bool used = false;
        for (int slot = 0; slot < DNSPROXY_SERVER_SLOTS; slot++) {
            if (!F::slot_passes(check, sif, slot))
                continue;
            if (!send_to(q, sif, slot, &status)) {
                dnsproxy_server_if_make_last(sif);
                return status;
            }
            used = true;
        }
        if (used && !polling) {
            dnsproxy_server_if_make_last(sif);
            return status;
        }
    }
    *only_down = passed_over;
    return status;
}

template <class F>
int choose(typename F::slot_check check, int len, uint8_t *buf, const typename F::host &host,
           uint16_t *nextId, uint32_t polling)
{
    query<F> q = {.host = host,
                  .message = buf,
                  .length = static_cast<size_t>(len),
                  .nextId = nextId,
                  .id = dns_id(buf),
                  .new_id = 0,
                  .identified = false,
                  .recorded = false};
    const bool all_down = F::heeds_link_state && server_if_all_down();
    bool only_down = false;
    int status = walk_lines(&q, check, all_down || polling != 0, &only_down);
    // The bus thread may have been changing link states under the walk, which then saw a line go down and not
    // yet that it was the last one, or that another came up. When it has finished, the walk sees all of it.
    if (only_down)
        status = walk_lines(&q, check, server_if_all_down_now(), &only_down);
    dns_set_id(buf, q.id);
    DNSPROXY_RETURN(F::op, status);
}

} // namespace

int dnsproxy_server_if_getServerAddress2(int (*check)(uint64_t slot), int len, uint8_t *buf, uint64_t from,
                                         uint16_t port, uint16_t *nextId, uint32_t polling)
{
    return choose<choice_v4>(check, len, buf, {.from = from, .port = port}, nextId, polling);
}

int dnsproxy_server_if_getServerAddress2_v6(int (*check)(const char *text), int len, uint8_t *buf,
                                            uint64_t from, const sockaddr_in6 *client, uint16_t port,
                                            uint16_t *nextId, uint32_t polling)
{
    return choose<choice_v6>(check, len, buf, {.from = from, .client = client, .port = port}, nextId,
                             polling);
}
