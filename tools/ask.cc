#include "ask.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/dns_header.h"
#include "iface/family.h"

namespace {

constexpr int64_t again_after_ms = 1000;
constexpr int64_t wait_ms = 3000;

// The servers of the root zone: what every resolver knows.
constexpr uint8_t query[] = {0, 0, 1, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 1};

int64_t now_ms()
{
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

template <class Address> question make_question(const line *l, const Address &address)
{
    question q = {.through = l, .server = {}, .server_length = sizeof address, .fd = -1, .answered = false};
    memcpy(&q.server, &address, sizeof address);
    return q;
}

void open_socket(question *q)
{
    q->fd = socket(q->server.ss_family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_UDP);
    if (q->fd < 0)
        return;
    if (setsockopt(q->fd, SOL_SOCKET, SO_BINDTODEVICE, q->through->device, sizeof q->through->device) < 0 ||
        connect(q->fd, reinterpret_cast<const sockaddr *>(&q->server), q->server_length) < 0) {
        (void)close(q->fd);
        q->fd = -1;
    }
}

void send_unanswered(question *questions, int count, uint16_t id)
{
    uint8_t message[sizeof query];
    memcpy(message, query, sizeof query);
    dns_set_id(message, id);
    for (int i = 0; i < count; i++) {
        if (questions[i].fd >= 0 && !questions[i].answered)
            (void)send(questions[i].fd, message, sizeof message, MSG_NOSIGNAL); // no answer will come
    }
}

// A connected socket takes datagrams of the server alone.
bool receive(const question &q, uint16_t id)
{
    uint8_t message[DNSPROXY_MESSAGE_SIZE];
    const ssize_t length = recv(q.fd, message, sizeof message, 0);
    return length >= static_cast<ssize_t>(DNSPROXY_HEADER_SIZE) && dns_id(message) == id &&
           (message[2] & 0x80) != 0;
}

// Whether somebody still has to answer at `deadline`.
bool collect(question *questions, int count, uint16_t id, int64_t deadline)
{
    for (;;) {
        pollfd waiting[4 * LINES_MOST];
        int left = 0;
        for (int i = 0; i < count; i++) {
            const bool waits = questions[i].fd >= 0 && !questions[i].answered;
            waiting[i] = {.fd = waits ? questions[i].fd : -1, .events = POLLIN, .revents = 0};
            left += waits ? 1 : 0;
        }
        const int64_t time = deadline - now_ms();
        if (left == 0 || time <= 0)
            return left != 0;
        if (poll(waiting, static_cast<nfds_t>(count), static_cast<int>(time)) <= 0)
            continue;
        for (int i = 0; i < count; i++) {
            if (waiting[i].revents != 0)
                questions[i].answered = receive(questions[i], id);
        }
    }
}

} // namespace

void question::text(char (&address)[INET6_ADDRSTRLEN]) const
{
    const auto *v4 = reinterpret_cast<const sockaddr_in *>(&server);
    const auto *v6 = reinterpret_cast<const sockaddr_in6 *>(&server);
    const void *bytes =
        server.ss_family == AF_INET ? static_cast<const void *>(&v4->sin_addr) : &v6->sin6_addr;
    (void)inet_ntop(server.ss_family, bytes, address, sizeof address);
}

int questions_of(const line *l, question *questions)
{
    int count = 0;
    for (const in_addr &v4 : l->ipv4) {
        const sockaddr_in to = {
            .sin_family = AF_INET, .sin_port = htons(DNSPROXY_DNS_PORT), .sin_addr = v4, .sin_zero = {}};
        if (v4.s_addr != 0)
            questions[count++] = make_question(l, to);
    }
    for (const in6_addr &v6 : l->ipv6) {
        sockaddr_in6 to = {};
        to.sin6_family = AF_INET6;
        to.sin6_port = htons(DNSPROXY_DNS_PORT);
        to.sin6_addr = v6;
        if (!IN6_IS_ADDR_UNSPECIFIED(&to.sin6_addr))
            questions[count++] = make_question(l, to);
    }
    return count;
}

void ask(question *questions, int count)
{
    uint16_t id = 0;
    if (getrandom(&id, sizeof id, GRND_NONBLOCK) != sizeof id)
        id = static_cast<uint16_t>(getpid()); // against mistakes, not against strangers
    for (int i = 0; i < count; i++)
        open_socket(&questions[i]);
    const int64_t start = now_ms();
    send_unanswered(questions, count, id);
    if (collect(questions, count, id, start + again_after_ms)) {
        send_unanswered(questions, count, id);
        (void)collect(questions, count, id, start + wait_ms);
    }
    for (int i = 0; i < count; i++) {
        if (questions[i].fd >= 0)
            (void)close(questions[i].fd);
    }
}
