#include "core/read_ahead.h"

#include <cstring>

namespace {

constexpr int sockets_max = 4;
constexpr unsigned ahead_max = 16;
constexpr size_t control_size = 256;

struct queue {
    int fd;
    unsigned next; // datagrams [next, end) wait
    unsigned end;
    bool emptied_socket; // it had no more than these
    mmsghdr headers[ahead_max];
    iovec buffers[ahead_max];
    dns_datagram datagrams[ahead_max];
    alignas(cmsghdr) uint8_t controls[ahead_max][control_size];
};

queue queues[sockets_max + 1];  // the last one serves further sockets, one datagram at a time
unsigned waiting;               // datagrams in all of them
bool more_may_wait;             // in the kernel, at a socket that was served since the last wait
uint32_t round = 2;             // of waits
uint32_t served_in[FD_SETSIZE]; // the last round in which a socket was served

bool is_empty(const queue &q)
{
    return q.next == q.end;
}

// That of the socket, else an empty one.
[[gnu::noinline]] queue *find_queue(int fd)
{
    queue *found = &queues[sockets_max];
    for (queue *q = found; q-- > queues;) {
        if (is_empty(*q))
            found = q;
        else if (q->fd == fd)
            return q;
    }
    return found;
}

// What a receive changes in the header of its datagram.
void make_ready(queue *q, unsigned at)
{
    msghdr &header = q->headers[at].msg_hdr;
    header.msg_namelen = sizeof q->datagrams[at].sender;
    header.msg_controllen = sizeof q->controls[at];
}

// Before the first receive.
[[gnu::cold, gnu::noinline]] void set_up(queue *q)
{
    for (unsigned at = 0; at < ahead_max; at++) {
        dns_datagram &d = q->datagrams[at];
        q->buffers[at] = {.iov_base = d.message, .iov_len = sizeof d.message};
        msghdr &header = q->headers[at].msg_hdr;
        header.msg_name = &d.sender;
        header.msg_iov = &q->buffers[at];
        header.msg_iovlen = 1;
        header.msg_control = q->controls[at];
        make_ready(q, at);
    }
}

dns_datagram *datagram_at(queue *q, unsigned at)
{
    const mmsghdr &header = q->headers[at];
    dns_datagram *d = &q->datagrams[at];
    d->length = header.msg_len;
    d->control = CMSG_FIRSTHDR(&header.msg_hdr);
    make_ready(q, at);
    if (d->length < DNSPROXY_HEADER_SIZE) [[unlikely]]
        memset(d->message + d->length, 0, DNSPROXY_HEADER_SIZE - d->length);
    return d;
}

[[gnu::noinline]] dns_datagram *take_waiting(queue *q)
{
    waiting--;
    dns_datagram *d = datagram_at(q, q->next++);
    if (is_empty(*q))
        more_may_wait |= !q->emptied_socket;
    return d;
}

// Whether a socket was served since the last wait, or between the two before; it is from now on.
bool is_busy(int fd)
{
    const bool busy = round - served_in[fd] <= 1;
    served_in[fd] = round;
    return busy;
}

} // namespace

dns_datagram *read_ahead_take(int fd)
{
    queue *q = waiting == 0 ? &queues[0] : find_queue(fd);
    const unsigned wanted = is_busy(fd) && q != &queues[sockets_max] ? ahead_max : 1;
    if (!is_empty(*q))
        return take_waiting(q);
    if (q->headers[0].msg_hdr.msg_iov == nullptr)
        set_up(q);
    const int got = recvmmsg(fd, q->headers, wanted, MSG_DONTWAIT, nullptr);
    if (got > 1) {
        q->fd = fd;
        q->next = 1;
        q->end = static_cast<unsigned>(got);
        q->emptied_socket = q->end < wanted;
        waiting += q->end - 1;
    } else {
        more_may_wait |= wanted == 1;
    }
    return got > 0 ? datagram_at(q, 0) : nullptr;
}

bool read_ahead_keeps(const dns_datagram *d)
{
    if (waiting == 0)
        return false;
    const queue *q = queues;
    while (d < q->datagrams || d >= q->datagrams + ahead_max)
        q++;
    return !is_empty(*q);
}

bool read_ahead_waits()
{
    return waiting > 0;
}

bool read_ahead_suffices()
{
    return !more_may_wait;
}

void read_ahead_waited()
{
    more_may_wait = false;
    round++;
}

int read_ahead_add(fd_set *ready)
{
    int added = 0;
    for (const queue &q : queues) {
        if (is_empty(q) || FD_ISSET(q.fd, ready))
            continue;
        FD_SET(q.fd, ready);
        added++;
    }
    return added;
}

void read_ahead_forget(int fd)
{
    for (queue &q : queues) {
        if (q.fd != fd)
            continue;
        waiting -= q.end - q.next;
        q.next = q.end;
    }
}
