/*
 * A DNS server for loads: sends every datagram back from the address that it was sent to, with the response
 * bit set. One thread serves all addresses, each on a socket of its own.
 *
 * echo ADDRESS...    (IPv4 and IPv6, port 53)
 */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

enum { DNS_PORT = 53, MESSAGE_SIZE = 65536, ADDRESSES_MAX = 16, FLAGS_OFFSET = 2, RESPONSE_BIT = 0x80 };

union address {
    struct sockaddr any;
    struct sockaddr_in v4;
    struct sockaddr_in6 v6;
};

static int open_at(const char *text)
{
    union address own;
    memset(&own, 0, sizeof own);
    const int is_v6 = inet_pton(AF_INET6, text, &own.v6.sin6_addr) == 1;
    if (!is_v6 && inet_pton(AF_INET, text, &own.v4.sin_addr) != 1)
        return -1;
    /* Both families have the family and the port at the same place. */
    own.any.sa_family = is_v6 ? AF_INET6 : AF_INET;
    own.v4.sin_port = htons(DNS_PORT);
    const int fd = socket(own.any.sa_family, SOCK_DGRAM, IPPROTO_UDP);
    const int receive_buffer = 8 << 20;
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &receive_buffer, sizeof receive_buffer);
    return bind(fd, &own.any, is_v6 ? sizeof own.v6 : sizeof own.v4) == 0 ? fd : -1;
}

static void answer(int fd)
{
    static uint8_t message[MESSAGE_SIZE];
    union address asker;
    socklen_t asker_length = sizeof asker;
    const ssize_t length = recvfrom(fd, message, sizeof message, 0, &asker.any, &asker_length);
    if (length <= FLAGS_OFFSET)
        return;
    message[FLAGS_OFFSET] |= RESPONSE_BIT;
    (void)sendto(fd, message, (size_t)length, 0, &asker.any, asker_length);
}

int main(int argc, char **argv)
{
    struct pollfd sockets[ADDRESSES_MAX];
    const int count = argc - 1;
    if (count < 1 || count > ADDRESSES_MAX) {
        (void)fprintf(stderr, "usage: echo ADDRESS... (at most %d)\n", ADDRESSES_MAX);
        return 1;
    }
    for (int i = 0; i < count; i++) {
        sockets[i] = (struct pollfd){.fd = open_at(argv[i + 1]), .events = POLLIN};
        if (sockets[i].fd < 0) {
            perror(argv[i + 1]);
            return 1;
        }
    }
    for (;;) {
        if (poll(sockets, (nfds_t)count, -1) < 1)
            continue;
        for (int i = 0; i < count; i++) {
            if (sockets[i].revents != 0)
                answer(sockets[i].fd);
        }
    }
}
