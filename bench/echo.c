/*
 * A DNS server for loads: answers every query, on any address of either family, from the address that it was
 * sent to. A question for an IPv4 address gets one, any other an empty reply. What a query carries behind its
 * question comes back with it.
 *
 * echo [DELAY]    (milliseconds between a query and its answer; 0 without)
 */
#include <netinet/in.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <time.h>

enum {
    DNS_PORT = 53,
    HEADER_SIZE = 12,
    QUESTION_TAIL = 4, /* type and class */
    QUERY_SIZE = 512,
    BATCH = 32,
    SLOTS = 16384, /* queries that wait for their answer */
    CONTROL_SIZE = 64
};

/* The name of the question, an IPv4 address in the class Internet, valid for 0 seconds. */
static const uint8_t record[] = {0xc0, 0x0c, 0, 1, 0, 1, 0, 0, 0, 0, 0, 4, 198, 51, 100, 1};

struct slot {
    int64_t due; /* nanoseconds */
    size_t length;
    size_t control_length;
    struct sockaddr_in6 asker; /* IPv4 in its IPv6 form */
    union {
        size_t aligned;
        uint8_t bytes[CONTROL_SIZE];
    } control; /* the address and the device that the query came to */
    uint8_t message[QUERY_SIZE + sizeof record];
};

/* A ring: what came first is answered first. */
static struct slot slots[SLOTS];
static size_t first;
static size_t count;
static int fd;

static struct slot *slot_at(size_t offset)
{
    return &slots[(first + offset) % SLOTS];
}

static int64_t now(void)
{
    struct timespec time;
    (void)clock_gettime(CLOCK_MONOTONIC, &time);
    return (int64_t)time.tv_sec * 1000000000 + time.tv_nsec;
}

static void open_socket(void)
{
    const int receive_buffer = 8 << 20;
    const int on = 1;
    const struct sockaddr_in6 own = {.sin6_family = AF_INET6, .sin6_port = htons(DNS_PORT)};
    fd = socket(AF_INET6, SOCK_DGRAM, IPPROTO_UDP);
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &receive_buffer, sizeof receive_buffer);
    if (setsockopt(fd, IPPROTO_IPV6, IPV6_RECVPKTINFO, &on, sizeof on) != 0 ||
        bind(fd, (const struct sockaddr *)&own, sizeof own) != 0) {
        perror("port 53");
        exit(1);
    }
}

/* Makes the reply in place; nothing is left of what is no query. */
static void answer(struct slot *slot)
{
    uint8_t *message = slot->message;
    size_t end = HEADER_SIZE;
    while (end < slot->length && message[end] != 0)
        end += 1U + message[end];
    end += 1 + QUESTION_TAIL;
    if (end > slot->length) {
        slot->length = 0;
        return;
    }
    message[2] |= 0x80; /* a response */
    message[3] = 0x80;  /* recursion available, no error */
    const int is_address = message[end - QUESTION_TAIL] == 0 && message[end - QUESTION_TAIL + 1] == 1;
    if (is_address) {
        memmove(message + end + sizeof record, message + end, slot->length - end);
        memcpy(message + end, record, sizeof record);
        slot->length += sizeof record;
        message[7] = 1; /* answers */
    }
}

static struct mmsghdr header_of(struct slot *slot, struct iovec *data)
{
    return (struct mmsghdr){.msg_hdr = {.msg_name = &slot->asker,
                                        .msg_namelen = sizeof slot->asker,
                                        .msg_iov = data,
                                        .msg_iovlen = 1,
                                        .msg_control = &slot->control,
                                        .msg_controllen = slot->control_length}};
}

static void receive(int64_t delay)
{
    struct mmsghdr headers[BATCH];
    struct iovec data[BATCH];
    size_t room = SLOTS - count < BATCH ? SLOTS - count : BATCH;
    for (size_t i = 0; i < room; i++) {
        struct slot *slot = slot_at(count + i);
        slot->control_length = CONTROL_SIZE;
        data[i] = (struct iovec){.iov_base = slot->message, .iov_len = QUERY_SIZE};
        headers[i] = header_of(slot, &data[i]);
    }
    const int received =
        recvmmsg(fd, headers, (unsigned)room, count == 0 ? MSG_WAITFORONE : MSG_DONTWAIT, NULL);
    const int64_t due = delay == 0 ? 0 : now() + delay;
    for (int i = 0; i < received; i++) {
        struct slot *slot = slot_at(count++);
        slot->due = due;
        slot->length = headers[i].msg_len;
        slot->control_length = headers[i].msg_hdr.msg_controllen;
        answer(slot);
    }
}

static void send_due(int64_t time)
{
    while (count > 0 && slot_at(0)->due <= time) {
        struct mmsghdr headers[BATCH];
        struct iovec data[BATCH];
        unsigned ready = 0;
        while (ready < BATCH && ready < count && slot_at(ready)->due <= time) {
            struct slot *slot = slot_at(ready);
            data[ready] = (struct iovec){.iov_base = slot->message, .iov_len = slot->length};
            headers[ready] = header_of(slot, &data[ready]);
            ready++;
        }
        /* One that cannot be sent is left out, like one that a network loses. */
        const int sent = sendmmsg(fd, headers, ready, 0);
        const size_t done = sent < 1 ? 1 : (size_t)sent;
        count -= done;
        first =
            count == 0 ? 0 : (first + done) % SLOTS; /* an empty ring starts over, where caches are warm */
    }
}

int main(int argc, char **argv)
{
    const int64_t delay = argc > 1 ? strtol(argv[1], NULL, 10) * 1000000 : 0;
    open_socket();
    (void)prctl(PR_SET_TIMERSLACK, 1);
    for (;;) {
        if (count > 0) {
            const int64_t wait = slot_at(0)->due - now();
            const struct timespec timeout = {.tv_nsec = wait > 0 ? wait % 1000000000 : 0,
                                             .tv_sec = wait > 0 ? wait / 1000000000 : 0};
            struct pollfd readable = {.fd = fd, .events = POLLIN};
            (void)ppoll(&readable, count < SLOTS ? 1 : 0, &timeout, NULL);
        }
        receive(delay);
        send_due(delay == 0 ? 0 : now());
    }
}
