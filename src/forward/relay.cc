#include "forward/relay.h"

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "net/pending_id.h"

namespace {

constexpr unsigned waiting_max = 16;

relay waiting[waiting_max];
unsigned waiting_count;

// Takes the outcome of a reply that waited.
void finish(const relay &r, bool sent)
{
    if (sent)
        relay_accept(r.accepted);
    else if (r.was_pending)
        dnsproxy_pending_id_set(r.new_id);
}

// Sends the first of these replies, all that leave by one socket. Returns how many the kernel took, or -1.
// Not by sendmmsg(3), which sends one by one in musl.
long send_together(relay *replies, unsigned count)
{
    mmsghdr headers[waiting_max] = {};
    iovec buffers[waiting_max];
    unsigned together = 0;
    for (; together < count && replies[together].to.fd == replies[0].to.fd; together++) {
        relay &r = replies[together];
        buffers[together] = {.iov_base = const_cast<uint8_t *>(r.message), .iov_len = r.length};
        msghdr &header = headers[together].msg_hdr;
        header.msg_name = &r.to.address;
        header.msg_namelen = r.to.size;
        header.msg_iov = &buffers[together];
        header.msg_iovlen = 1;
    }
    return syscall(SYS_sendmmsg, replies[0].to.fd, headers, together, MSG_DONTWAIT);
}

[[gnu::noinline]] void send_waiting()
{
    for (unsigned next = 0; next < waiting_count;) {
        const long sent = send_together(&waiting[next], waiting_count - next);
        // The kernel stops before one that cannot leave. The next call begins with it, and fails.
        const unsigned end = next + static_cast<unsigned>(sent < 1 ? 1 : sent);
        while (next < end)
            finish(waiting[next++], sent >= 1);
    }
    waiting_count = 0;
}

} // namespace

bool relay_now(const way_back &to, const uint8_t *message, size_t length)
{
    relay_flush();
    return sendto(to.fd, message, length, MSG_DONTWAIT, &to.address.any, to.size) >= 0;
}

void relay_later(const relay &r)
{
    dnsproxy_pending_id_clear(r.new_id);
    waiting[waiting_count++] = r;
    if (waiting_count == waiting_max)
        relay_flush();
}

void relay_flush()
{
    if (waiting_count > 0) [[unlikely]]
        send_waiting();
}

void relay_settle(uint16_t new_id)
{
    for (unsigned at = 0; at < waiting_count; at++) {
        if (pending_id_shares_mark(waiting[at].new_id, new_id))
            return relay_flush();
    }
}
