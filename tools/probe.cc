#include "probe.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include "clock.h"
#include "command.h"
#include "core/dns_header.h"
#include "iface/family.h"
#include "port53.h"

namespace {

constexpr int64_t again_after_ms = 1000;
constexpr int64_t wait_ms = 3000;
constexpr int most_at_once = 256; // a process has 1024 descriptors

constexpr uint8_t header[DNSPROXY_HEADER_SIZE] = {0, 0, 1, 0, 0, 1,
                                                  0, 0, 0, 0, 0, 0}; // recursion, one question
constexpr uint8_t type_a = 1;
constexpr uint8_t type_ns = 2;
constexpr uint8_t class_in = 1;
constexpr size_t longest_label = 63;
constexpr size_t longest_name = 254; // as labels, without the root's

template <class Address> probe make_probe(int line, const char *device, const Address &address)
{
    probe p = {};
    p.line = line;
    memcpy(p.device, device, sizeof p.device);
    memcpy(&p.server, &address, sizeof address);
    p.server_length = sizeof address;
    p.fd = -1;
    return p;
}

void open_socket(probe *p)
{
    p->answered = false;
    p->error = 0;
    p->fd = socket(p->server.ss_family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_UDP);
    if (p->fd >= 0 && p->mark != 0)
        (void)setsockopt(p->fd, SOL_SOCKET, SO_MARK, &p->mark, sizeof p->mark);
    if (p->fd >= 0 && setsockopt(p->fd, SOL_SOCKET, SO_BINDTODEVICE, p->device, sizeof p->device) == 0 &&
        connect(p->fd, reinterpret_cast<const sockaddr *>(&p->server), p->server_length) == 0)
        return;
    p->error = errno;
    if (p->fd >= 0)
        (void)close(p->fd);
    p->fd = -1;
}

// The sockets belong to the group of a daemon that runs, if this user may do so.
void open_sockets(probe *probes, int count)
{
    const gid_t own = getegid();
    const gid_t daemons = group_of(find_daemon());
    const bool changed = daemons != static_cast<gid_t>(-1) && daemons != own && setegid(daemons) == 0;
    for (int i = 0; i < count; i++)
        open_socket(&probes[i]);
    if (changed && setegid(own) != 0)
        abort(); // it was ours a moment ago
}

void send_unanswered(const probe *probes, int count, const uint8_t *message, size_t length)
{
    for (int i = 0; i < count; i++) {
        if (probes[i].fd >= 0 && !probes[i].answered)
            (void)send(probes[i].fd, message, length, MSG_NOSIGNAL); // no answer will come
    }
}

// A connected socket takes datagrams of the server alone. An answer repeats the question, if it has one.
bool receive(const probe &p, const uint8_t *asked, size_t asked_length)
{
    uint8_t message[DNSPROXY_MESSAGE_SIZE];
    const ssize_t got = recv(p.fd, message, sizeof message, 0);
    if (got < static_cast<ssize_t>(DNSPROXY_HEADER_SIZE) || memcmp(message, asked, DNSPROXY_ID_SIZE) != 0 ||
        (message[2] & 0x80) == 0)
        return false;
    const int questions = message[4] << 8 | message[5];
    const size_t question_length = asked_length - DNSPROXY_HEADER_SIZE;
    return questions == 0 ||
           (questions == 1 && got >= static_cast<ssize_t>(asked_length) &&
            memcmp(message + DNSPROXY_HEADER_SIZE, asked + DNSPROXY_HEADER_SIZE, question_length) == 0);
}

// Whether somebody still has to answer at `deadline`.
bool collect(probe *probes, int count, const uint8_t *asked, size_t length, int64_t deadline)
{
    for (;;) {
        pollfd waiting[most_at_once];
        int left = 0;
        for (int i = 0; i < count; i++) {
            const bool waits = probes[i].fd >= 0 && !probes[i].answered;
            waiting[i] = {.fd = waits ? probes[i].fd : -1, .events = POLLIN, .revents = 0};
            left += waits ? 1 : 0;
        }
        const int64_t time = deadline - now_ms();
        if (left == 0 || time <= 0 || stop_requested != 0)
            return left != 0 && stop_requested == 0;
        if (poll(waiting, static_cast<nfds_t>(count), static_cast<int>(time)) <= 0)
            continue;
        for (int i = 0; i < count; i++) {
            if (waiting[i].revents != 0)
                probes[i].answered = receive(probes[i], asked, length);
        }
    }
}

void ask_some(probe *probes, int count, const probe_query *query)
{
    uint8_t message[sizeof query->message];
    memcpy(message, query->message, query->length);
    uint16_t id = 0;
    if (getrandom(&id, sizeof id, GRND_NONBLOCK) != sizeof id)
        id = static_cast<uint16_t>(getpid()); // against mistakes, not against strangers
    dns_set_id(message, id);
    open_sockets(probes, count);
    const int64_t start = now_ms();
    send_unanswered(probes, count, message, query->length);
    if (collect(probes, count, message, query->length, start + again_after_ms)) {
        send_unanswered(probes, count, message, query->length);
        (void)collect(probes, count, message, query->length, start + wait_ms);
    }
    for (int i = 0; i < count; i++) {
        if (probes[i].fd >= 0)
            (void)close(probes[i].fd);
        probes[i].fd = -1;
    }
}

} // namespace

void probe::text(char (&address)[INET6_ADDRSTRLEN]) const
{
    const auto *v4 = reinterpret_cast<const sockaddr_in *>(&server);
    const auto *v6 = reinterpret_cast<const sockaddr_in6 *>(&server);
    const void *bytes =
        server.ss_family == AF_INET ? static_cast<const void *>(&v4->sin_addr) : &v6->sin6_addr;
    (void)inet_ntop(server.ss_family, bytes, address, sizeof address);
}

bool probe_query::set_name(const char *name)
{
    memcpy(message, header, sizeof header);
    length = sizeof header;
    const bool is_root = strcmp(name, ".") == 0;
    for (const char *label = is_root ? "" : name; *label != '\0';) {
        const size_t size = strcspn(label, ".");
        if (size == 0 || size > longest_label || length - sizeof header + 1 + size > longest_name)
            return false;
        message[length++] = static_cast<uint8_t>(size);
        memcpy(message + length, label, size);
        length += size;
        label += size;
        label += *label == '.' ? 1 : 0;
    }
    const uint8_t rest[] = {0, 0, is_root ? type_ns : type_a, 0, class_in};
    memcpy(message + length, rest, sizeof rest);
    length += sizeof rest;
    return name[0] != '\0';
}

int probes_of(const line_table *table, int line, probe *probes)
{
    const struct line &l = table->lines[line];
    int count = 0;
    for (const in_addr &v4 : l.ipv4) {
        const sockaddr_in to = {
            .sin_family = AF_INET, .sin_port = htons(DNSPROXY_DNS_PORT), .sin_addr = v4, .sin_zero = {}};
        if (v4.s_addr != 0)
            probes[count++] = make_probe(line, l.device, to);
    }
    for (const in6_addr &v6 : l.ipv6) {
        sockaddr_in6 to = {};
        to.sin6_family = AF_INET6;
        to.sin6_port = htons(DNSPROXY_DNS_PORT);
        to.sin6_addr = v6;
        if (!IN6_IS_ADDR_UNSPECIFIED(&to.sin6_addr))
            probes[count++] = make_probe(line, l.device, to);
    }
    return count;
}

void probes_ask(probe *probes, int count, const probe_query *query)
{
    for (int first = 0; first < count; first += most_at_once)
        ask_some(probes + first, std::min(count - first, most_at_once), query);
}
