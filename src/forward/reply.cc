#include "forward/reply.h"

#include <cstring>

#include "core/dns_header.h"
#include "core/read_ahead.h"
#include "forward/reply_families.h"
#include "iface/ifname.h"
#include "net/pending_id.h"

namespace {

constexpr char op[] = "dnsproxy_server_socket_read";

// The outcome for one socket in the turn of its line.
enum class turn {
    not_ready,
    relayed, // or a later reply to a query that was answered
    dropped, // the reply, or the receive, was no good
};

// A reply counts for the server that sent it. One from another address counts for the server that the record
// names, if that server is of this line; else for none.
template <class Family, class Entry>
slot_counters *counted_slot(dnsproxy_server_if *sif, const typename Family::sockaddr_type &sender,
                            const Entry &entry)
{
    int slot = 0;
    while (slot < DNSPROXY_SERVER_SLOTS && !Family::is_server(sif, slot, sender))
        slot++;
    if (slot == DNSPROXY_SERVER_SLOTS) {
        if (!ifname_equal(sif->ifname, entry.ifname))
            return nullptr;
        slot = entry.dnsIndex;
    }
    return &Family::counters(sif).slots[slot];
}

template <class Family> turn serve(dnsproxy_server_if *sif, const fd_set *ready, int *count)
{
    const int fd = Family::fd(sif);
    if (fd <= 0 || !descriptor_is_ready(fd, ready, *count))
        return turn::not_ready;
    --*count;
    DNSPROXY_LOG(DEBUG, op, 0, reply_msg_reply<Family>, sif->ifname);
    dns_datagram *reply = read_ahead_take(fd);
    if (reply == nullptr) {
        DNSPROXY_LOG(ERROR, op, -1, reply_msg_recv<Family>, sif->ifname);
        return turn::dropped;
    }
    uint8_t *message = reply->message;
    const size_t length = reply->length;
    if (length < DNSPROXY_ID_SIZE)
        return turn::dropped;
    const uint16_t new_id = dns_id(message);
    auto *entry = Family::find_by_id(new_id);
    if (entry == nullptr) {
        DNSPROXY_LOG(DEBUG, op, 0, reply_msg_unknown<Family>, new_id);
        return turn::dropped;
    }
    dns_set_id(message, entry->id);
    if (dnsproxy_check_dnspacket(message) == 0) {
        DNSPROXY_LOG(DEBUG, op, 0, "Recv a bad dns reply packet.");
        return turn::dropped;
    }
    // A reply is matched by its identifier alone; its sender is only counted.
    const acceptance accepted = {.flags = &entry->flags,
                                 .slot = counted_slot<Family>(sif, Family::sender(*reply), *entry),
                                 .ns = ipcom_tmo2_now(dnsproxy_data.tmo2Head) - entry_sent_at(*entry)};
    relay_settle(new_id);
    const bool pending = dnsproxy_pending_id_test(new_id) != 0;
    if (dnsproxy_data.specIface == 1 || pending) {
        const way_back to = Family::way_to_host(op, *entry);
        if (read_ahead_keeps(reply) && !Family::outcome_matters(sif, ready, *count) &&
            !dnsproxy_log_is_on(DNSPROXY_LOG_ERROR)) {
            relay_later({to, new_id, pending, message, length, accepted});
            return turn::relayed;
        }
        if (!relay_now(to, message, length)) {
            DNSPROXY_LOG(ERROR, op, 0, "sendto data error.\n");
            return turn::dropped;
        }
        dnsproxy_pending_id_clear(new_id);
    }
    relay_accept(accepted);
    return turn::relayed;
}

} // namespace

int dnsproxy_server_socket_read(const fd_set *ready, int *count)
{
    for (auto *sif = ipcom_first<dnsproxy_server_if>(dnsproxy_data.serverIfList); sif != nullptr;
         sif = ipcom_next(sif)) {
        // A reply that is dropped ends the line's turn: its IPv6 socket is served in the next pass.
        if (serve<reply_v4>(sif, ready, count) != turn::dropped)
            serve<reply_v6>(sif, ready, count);
    }
    DNSPROXY_RETURN(op, 0);
}

int dnsproxy_check_dnspacket(const uint8_t *message)
{
    constexpr uint16_t qr_bit = 0x8000;
    uint16_t native = 0;
    memcpy(&native, message + 2, sizeof native);
    const uint16_t flags = ntohs(native);
    DNSPROXY_LOG(DEBUG, __func__, 0, "Dns response:%x.dns_response_flags:%x", native, flags);
    return (flags & qr_bit) != 0 ? 1 : 0;
}
