/*
 * Asks a DNS server at a steady rate and prints what came back as one JSON object, latencies in microseconds.
 * Every query has its own name, and its own pair of port and identifier until SOCKETS x 65536 are used.
 *
 * ask SERVER RATE SECONDS SOCKETS
 */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <time.h>

enum { DNS_PORT = 53, SOCKETS_MAX = 64, IDS = 65536, MESSAGE_SIZE = 512 };

static const int64_t SECOND = 1000000000;
static const int64_t PATIENCE = 3000000000; /* for the replies after the last query */

static struct pollfd sockets[SOCKETS_MAX];
static unsigned socket_count;
static int64_t *asked_at;   /* by socket and identifier; 0: nothing in flight */
static uint32_t *latencies; /* nanoseconds */
static size_t sent;
static size_t answered;
static size_t unexpected; /* a second reply, or one without a query */

static int64_t now(void)
{
    struct timespec time;
    (void)clock_gettime(CLOCK_MONOTONIC, &time);
    return (int64_t)time.tv_sec * SECOND + time.tv_nsec;
}

static void require(int condition, const char *what)
{
    if (!condition) {
        perror(what);
        exit(1);
    }
}

static void open_sockets(const char *server)
{
    union {
        struct sockaddr any;
        struct sockaddr_in v4;
        struct sockaddr_in6 v6;
    } to;
    memset(&to, 0, sizeof to);
    const int is_v6 = inet_pton(AF_INET6, server, &to.v6.sin6_addr) == 1;
    require(is_v6 || inet_pton(AF_INET, server, &to.v4.sin_addr) == 1, "SERVER is no address");
    /* Both families have the family and the port at the same place. */
    to.any.sa_family = is_v6 ? AF_INET6 : AF_INET;
    to.v4.sin_port = htons(DNS_PORT);
    const int receive_buffer = 4 << 20;
    for (unsigned i = 0; i < socket_count; i++) {
        const int fd = socket(to.any.sa_family, SOCK_DGRAM, IPPROTO_UDP);
        (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &receive_buffer, sizeof receive_buffer);
        require(connect(fd, &to.any, is_v6 ? sizeof to.v6 : sizeof to.v4) == 0, "connect");
        sockets[i] = (struct pollfd){.fd = fd, .events = POLLIN};
    }
}

static void ask(void)
{
    /* Identifier, recursion desired, one question; then the name, type A, class Internet. */
    uint8_t message[MESSAGE_SIZE] = {0, 0, 1, 0, 0, 1};
    static const uint8_t tail[] = "\5bench\7example\0\0\1\0"; /* its last byte is the class's */
    const unsigned which = (unsigned)(sent % socket_count);
    const uint16_t id = (uint16_t)(sent / socket_count);
    message[0] = (uint8_t)(id >> 8);
    message[1] = (uint8_t)id;
    message[12] = 9;
    (void)snprintf((char *)message + 13, 10, "q%08zu", sent % 100000000);
    memcpy(message + 22, tail, sizeof tail);
    message[22 + sizeof tail - 1] = 1;
    asked_at[which * IDS + id] = now();
    (void)send(sockets[which].fd, message, 22 + sizeof tail, 0);
    sent++;
}

static void take_reply(unsigned which)
{
    uint8_t message[MESSAGE_SIZE];
    while (recv(sockets[which].fd, message, sizeof message, MSG_DONTWAIT) >= 2) {
        int64_t *at = &asked_at[which * IDS + (unsigned)(message[0] << 8 | message[1])];
        if (*at == 0) {
            unexpected++;
            continue;
        }
        latencies[answered++] = (uint32_t)(now() - *at);
        *at = 0;
    }
}

static void take_replies(int64_t until)
{
    const int64_t wait = until - now();
    const struct timespec timeout = {.tv_nsec = wait > 0 ? wait % SECOND : 0,
                                     .tv_sec = wait > 0 ? wait / SECOND : 0};
    if (ppoll(sockets, socket_count, &timeout, NULL) < 1)
        return;
    for (unsigned i = 0; i < socket_count; i++) {
        if (sockets[i].revents != 0)
            take_reply(i);
    }
}

static int by_size(const void *left, const void *right)
{
    const uint32_t a = *(const uint32_t *)left;
    const uint32_t b = *(const uint32_t *)right;
    return (a > b) - (a < b);
}

static double microseconds(double part)
{
    return answered == 0 ? 0 : latencies[(size_t)((double)(answered - 1) * part)] / 1000.0;
}

int main(int argc, char **argv)
{
    if (argc != 5) {
        (void)fprintf(stderr, "usage: ask SERVER RATE SECONDS SOCKETS\n");
        return 1;
    }
    const int64_t rate = strtol(argv[2], NULL, 10);
    const int64_t total = rate * strtol(argv[3], NULL, 10);
    socket_count = (unsigned)strtoul(argv[4], NULL, 10);
    require(total > 0 && socket_count > 0 && socket_count <= SOCKETS_MAX, "arguments");
    asked_at = calloc((size_t)socket_count * IDS, sizeof *asked_at);
    latencies = calloc((size_t)total, sizeof *latencies);
    require(asked_at != NULL && latencies != NULL, "memory");
    open_sockets(argv[1]);
    (void)prctl(PR_SET_TIMERSLACK, 1);

    const int64_t start = now();
    for (int64_t i = 0; i < total; i++) {
        const int64_t due = start + i * SECOND / rate;
        do
            take_replies(due);
        while (now() < due);
        ask();
    }
    const int64_t end = now();
    while (answered < sent && now() < end + PATIENCE)
        take_replies(end + PATIENCE);

    qsort(latencies, answered, sizeof *latencies, by_size);
    (void)printf("{\"sent\": %zu, \"answered\": %zu, \"unexpected\": %zu, \"rate\": %.0f, "
                 "\"median\": %.1f, \"p99\": %.1f, \"p999\": %.1f, \"most\": %.1f}\n",
                 sent, answered, unexpected, (double)sent * (double)SECOND / (double)(end - start),
                 microseconds(0.5), microseconds(0.99), microseconds(0.999), microseconds(1));
    return 0;
}
