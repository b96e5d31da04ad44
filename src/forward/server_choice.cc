#include "forward/server_choice.h"

#include <sys/socket.h>

#include "core/dns_header.h"
#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "forward/identifier.h"
#include "forward/server_choice_families.h"
#include "net/pending_id.h"

namespace {

// A query on its way to one or more servers.
template <class Family> struct sending {
    host_key<typename Family::host> key;
    uint8_t *message;
    size_t length;
    uint16_t *nextId;
    uint16_t new_id; // once it is identified
    bool identified;
    bool recorded;
};

// Whether the query went out and is on record. *status is that of the last step that has one.
template <class Family> bool send_to(sending<Family> *s, dnsproxy_server_if *sif, int slot, int *status)
{
    const auto to = Family::destination(sif, slot);
    Family::trace_destination(to);
    line_counters &counters = Family::counters(sif);
    *status = Family::socket_check(sif);
    if (*status < 0) {
        count(&counters.failed);
        DNSPROXY_LOG(DEBUG, Family::op, *status, "Fail to check server socket(ifname:%s).", sif->ifname);
        return false;
    }
    // Not before a socket is ready: a query that cannot leave takes no identifier.
    if (!s->identified) {
        s->new_id = query_identify(s->key, s->nextId, &s->recorded);
        s->identified = true;
    }
    dns_set_id(s->message, s->new_id);
    const ssize_t sent = sendto(Family::fd(sif), s->message, s->length, MSG_DONTWAIT,
                                reinterpret_cast<const sockaddr *>(&to), sizeof to);
    DNSPROXY_LOG(TRACE, Family::op, 0, "sendsize:%d,recv_size:%d", static_cast<int>(sent),
                 static_cast<int>(s->length));
    Family::trace_sent(sif, to);
    if (sent < static_cast<ssize_t>(s->length)) {
        count(&counters.failed);
        DNSPROXY_LOG(ERROR, Family::op, *status, choice_msg_send<Family>);
        return false;
    }
    count(&counters.slots[slot].sent);
    dnsproxy_pending_id_set(s->new_id);
    if (s->recorded)
        return true;
    *status = request_cache_add(s->key, s->new_id, sif->ifname, slot);
    if (*status < 0) {
        DNSPROXY_LOG(ERROR, Family::op, *status, choice_msg_add<Family>);
        return false;
    }
    s->recorded = true;
    return true;
}

// The walk over the lines. A line that served the query, or failed to, becomes the last; a failure ends the
// walk, and the host's retry meets the next line.
template <class Family, class Usable> int walk_lines(sending<Family> *s, bool polling, const Usable &usable)
{
    int status = 0;
    for (auto *sif = ipcom_first<dnsproxy_server_if>(dnsproxy_data.serverIfList); sif != nullptr;
         sif = ipcom_next(sif)) {
        if (Family::heeds_link_state && !polling && server_if_is_down(sif)) {
            DNSPROXY_LOG(DEBUG, Family::op, 0, "iface:%s is_down:%d polling:%d", sif->ifname,
                         static_cast<int>(server_if_link_state(sif)), 0);
            continue;
        }
        bool used = false;
        for (int slot = 0; slot < DNSPROXY_SERVER_SLOTS; slot++) {
            if (!usable(sif, slot))
                continue;
            if (!send_to(s, sif, slot, &status)) {
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
    return status;
}

// `usable(sif, slot)` says whether a slot holds a server.
template <class Family, class Usable>
int choose(const typename Family::host &host, uint8_t *message, size_t length, uint16_t *nextId,
           uint32_t polling, const Usable &usable)
{
    const uint16_t id = dns_id(message);
    sending<Family> s = {.key = request_cache_key(host, id),
                         .message = message,
                         .length = length,
                         .nextId = nextId,
                         .new_id = 0,
                         .identified = false,
                         .recorded = false};
    const bool all_down = Family::heeds_link_state && server_if_all_down();
    const int status = walk_lines(&s, all_down || polling != 0, usable);
    dns_set_id(message, id);
    DNSPROXY_RETURN(Family::op, status);
}

template <class Family>
int choose_by_check(typename Family::slot_check check, const typename Family::host &host, uint8_t *buf,
                    int len, uint16_t *nextId, uint32_t polling)
{
    return choose<Family>(
        host, buf, static_cast<size_t>(len), nextId, polling,
        [check](const dnsproxy_server_if *sif, int slot) { return Family::passes(check, sif, slot); });
}

} // namespace

int server_choice_send(const host_v4 &host, uint8_t *message, size_t length, uint32_t polling)
{
    return choose<choice_v4>(host, message, length, &dnsproxy_data.nextNewId, polling, ipv4::has_server);
}

int server_choice_send(const host_v6 &host, uint8_t *message, size_t length, uint32_t polling)
{
    return choose<choice_v6>(host, message, length, &dnsproxy_data.nextNewId, polling, ipv6::has_server);
}

int dnsproxy_server_if_getServerAddress2(int (*check)(uint64_t slot), int len, uint8_t *buf, uint64_t from,
                                         uint16_t port, uint16_t *nextId, uint32_t polling)
{
    return choose_by_check<choice_v4>(check, {.from = from, .port = port}, buf, len, nextId, polling);
}

int dnsproxy_server_if_getServerAddress2_v6(int (*check)(const char *text), int len, uint8_t *buf,
                                            uint64_t from, const sockaddr_in6 *client, uint16_t port,
                                            uint16_t *nextId, uint32_t polling)
{
    return choose_by_check<choice_v6>(check, {.from = from, .from6 = client->sin6_addr, .port = port}, buf,
                                      len, nextId, polling);
}
