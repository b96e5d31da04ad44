#include "net/reply.h"

#include <cstring>
#include <sys/socket.h>

#include "cache/noreply.h"
#include "cache/request_cache.h"
#include "core/dns_header.h"
#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "core/platform/fd_bits.h"
#include "iface/family.h"
#include "iface/ifname.h"
#include "net/pending_id.h"

namespace {

constexpr char op[] = "dnsproxy_server_socket_read";

bool send_from(int fd, const uint8_t *message, size_t length, const sockaddr *to, socklen_t to_length)
{
    return sendto(fd, message, length, MSG_DONTWAIT, to, to_length) >= 0;
}

bool send_to_v4_host(uint64_t from, uint16_t port, const uint8_t *message, size_t length)
{
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = port;
    to.sin_addr.s_addr = static_cast<uint32_t>(from);
    return send_from(dnsproxy_data.listenFd, message, length, reinterpret_cast<const sockaddr *>(&to),
                     sizeof to);
}

bool send_to_v6_host(const in6_addr &from6, uint16_t port, const uint8_t *message, size_t length)
{
    sockaddr_in6 to = {};
    to.sin6_family = AF_INET6;
    to.sin6_port = port;
    to.sin6_addr = from6;
    return send_from(dnsproxy_data.listenFd6, message, length, reinterpret_cast<const sockaddr *>(&to),
                     sizeof to);
}

struct reply_v4 : ipv4 {
    static constexpr auto find_by_id = dnsproxy_entry_findById;

    static constexpr char msg_reply[] = "Recv a dnsproxy reply from if(%s).";
    static constexpr char msg_recv[] = "recvfrom data error(ifname:%s).";
    static constexpr char msg_unknown[] = "new_id %d is not our packet.";

    static bool relay(const dnsproxy_cache_entry &entry, const uint8_t *message, size_t length)
    {
        return send_to_v4_host(entry.from, entry.port, message, length);
    }
};

struct reply_v6 : ipv6 {
    static constexpr auto find_by_id = dnsproxy_entry_findById_v6;

    static constexpr char msg_reply[] = "Recv a IPv6 dnsproxy reply from if(%s).";
    static constexpr char msg_recv[] = "recvfrom IPv6 data error(ifname:%s).";
    static constexpr char msg_unknown[] = "new_id %d is not our IPv6 packet.";

    // A query that came in over IPv4 on loopback is answered over IPv4.
    static bool relay(const dnsproxy_cache_entry_v6 &entry, const uint8_t *message, size_t length)
    {
        if (entry.from == 0)
            return send_to_v6_host(entry.from6, entry.port, message, length);
        const bool sent = send_to_v4_host(entry.from, entry.port, message, length);
        DNSPROXY_LOG(DEBUG, op, 0, "Send dns reply packet to loopback.");
        return sent;
    }
};

// A reply is its sender's. One from elsewhere is put down to the server that the record names, if that is of
// this line.
template <class F, class Entry>
void count_reply_of(dnsproxy_server_if *sif, const typename F::sockaddr_type &sender, const Entry &entry)
{
    int slot = 0;
    while (slot < DNSPROXY_SERVER_SLOTS && !F::is_server(sif, slot, sender))
        slot++;
    if (slot == DNSPROXY_SERVER_SLOTS) {
        if (!ifname_equal(sif->ifname, entry.ifname))
            return;
        slot = entry.dnsIndex;
    }
    count_reply(&(sif->*F::counters).slots[slot],
                ipcom_tmo2_now(dnsproxy_data.tmo2Head) - entry_sent_at(entry));
}

// Serves one socket of a device, if it is ready. False: it was read and nothing good came of it, which ends
// the device's turn.
template <class F> bool serve(dnsproxy_server_if *sif, const fd_set *ready, int *count)
{
    const int fd = sif->*F::fd;
    if (fd <= 0 || *count <= 0 || !fd_bits_has(ready, fd))
        return true;
    --*count;
    DNSPROXY_LOG(DEBUG, op, 0, F::msg_reply, sif->ifname);
    uint8_t message[DNSPROXY_MESSAGE_SIZE];
    memset(message, 0, DNSPROXY_HEADER_SIZE); // a short reply has no flags
    // Whoever sent it: a reply is matched by its identifier alone.
    typename F::sockaddr_type sender = {};
    socklen_t sender_length = sizeof sender;
    const ssize_t got = recvfrom(fd, message, sizeof message, MSG_DONTWAIT,
                                 reinterpret_cast<sockaddr *>(&sender), &sender_length);
    if (got < 0) {
        DNSPROXY_LOG(ERROR, op, static_cast<int>(got), F::msg_recv, sif->ifname);
        return false;
    }
    const auto length = static_cast<size_t>(got);
    if (length < DNSPROXY_ID_SIZE)
        return false;
    const uint16_t new_id = dns_id(message);
    auto *entry = F::find_by_id(new_id);
    if (entry == nullptr) {
        DNSPROXY_LOG(DEBUG, op, 0, F::msg_unknown, new_id);
        return false;
    }
    dns_set_id(message, entry->id);
    if (dnsproxy_check_dnspacket(message) == 0) {
        DNSPROXY_LOG(DEBUG, op, 0, "Recv a bad dns reply packet.");
        return false;
    }
    if (dnsproxy_data.specIface == 1 || dnsproxy_pending_id_test(new_id) != 0) {
        if (!F::relay(*entry, message, length)) {
            DNSPROXY_LOG(ERROR, op, 0, "sendto data error.\n");
            return false;
        }
        dnsproxy_pending_id_clear(new_id);
    }
    dnsproxy_noreply_reset();
    entry->flags |= DNSPROXY_ENTRY_ANSWERED;
    count_reply_of<F>(sif, sender, *entry);
    return true;
}

} // namespace

int dnsproxy_server_socket_read(const fd_set *ready, int *count)
{
    for (auto *sif = ipcom_first<dnsproxy_server_if>(dnsproxy_data.serverIfList); sif != nullptr;
         sif = ipcom_next(sif)) {
        if (serve<reply_v4>(sif, ready, count))
            (void)serve<reply_v6>(sif, ready, count);
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
