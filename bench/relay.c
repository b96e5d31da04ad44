/*
 * The least that a DNS proxy can do: no table, no timer, no rule. One device, one server, one family; the
 * form of the server's address is the family that is served.
 *
 * relay SERVER DEVICE: one by one, as a proxy on select. Per query it waits, receives with the arrival
 * device, sends, waits, receives the reply and sends that.
 *
 * relay --batch SERVER DEVICE: after a wait all that is there, up to 32, is received and sent with one call
 * each.
 */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>

enum { DNS_PORT = 53, MESSAGE_SIZE = 1600, CONTROL_SIZE = 256, ID_SIZE = 2, BATCH = 32 };

union address {
    struct sockaddr any;
    struct sockaddr_in v4;
    struct sockaddr_in6 v6;
};

/* Who asked, by the identifier on the forwarded query; a host is overwritten when the counter comes round. */
static struct {
    union address address;
    socklen_t length;
    uint8_t id[ID_SIZE];
} hosts[UINT16_MAX + 1];

static uint16_t next_id;
static uint8_t message[MESSAGE_SIZE];
static union address server;
static socklen_t server_length;
static int listen_fd;
static int server_fd;

static void require(int condition, const char *what)
{
    if (!condition) {
        perror(what);
        exit(1);
    }
}

static void switch_on(int level, int option)
{
    const int on = 1;
    require(setsockopt(listen_fd, level, option, &on, sizeof on) == 0, "setsockopt");
}

static void set_up(const char *server_text, const char *device)
{
    union address own;
    memset(&own, 0, sizeof own);
    memset(&server, 0, sizeof server);
    const int is_v6 = inet_pton(AF_INET6, server_text, &server.v6.sin6_addr) == 1;
    require(is_v6 || inet_pton(AF_INET, server_text, &server.v4.sin_addr) == 1, "SERVER is no address");
    /* Both families have the family and the port at the same place. */
    server.any.sa_family = own.any.sa_family = is_v6 ? AF_INET6 : AF_INET;
    server.v4.sin_port = own.v4.sin_port = htons(DNS_PORT);
    server_length = is_v6 ? sizeof server.v6 : sizeof server.v4;

    listen_fd = socket(own.any.sa_family, SOCK_DGRAM, IPPROTO_UDP);
    server_fd = socket(own.any.sa_family, SOCK_DGRAM, IPPROTO_UDP);
    require(listen_fd >= 0 && server_fd >= 0, "socket");
    if (is_v6) {
        switch_on(IPPROTO_IPV6, IPV6_V6ONLY);
        switch_on(IPPROTO_IPV6, IPV6_RECVPKTINFO);
    } else {
        switch_on(IPPROTO_IP, IP_PKTINFO);
    }
    require(bind(listen_fd, &own.any, server_length) == 0, "bind to port 53");
    require(setsockopt(server_fd, SOL_SOCKET, SO_BINDTODEVICE, device, (socklen_t)strlen(device)) == 0,
            device);
}

static void forward_query(void)
{
    const uint16_t id = next_id++;
    union {
        struct cmsghdr aligned;
        char bytes[CONTROL_SIZE];
    } control;
    struct iovec data = {.iov_base = message, .iov_len = sizeof message};
    struct msghdr header = {.msg_name = &hosts[id].address,
                            .msg_namelen = sizeof hosts[id].address,
                            .msg_iov = &data,
                            .msg_iovlen = 1,
                            .msg_control = &control,
                            .msg_controllen = sizeof control};
    const ssize_t length = recvmsg(listen_fd, &header, MSG_DONTWAIT);
    if (length < ID_SIZE)
        return;
    hosts[id].length = header.msg_namelen;
    memcpy(hosts[id].id, message, ID_SIZE);
    memcpy(message, &id, ID_SIZE);
    (void)sendto(server_fd, message, (size_t)length, MSG_DONTWAIT, &server.any, server_length);
}

static void relay_reply(void)
{
    union address sender;
    socklen_t sender_length = sizeof sender;
    const ssize_t length =
        recvfrom(server_fd, message, sizeof message, MSG_DONTWAIT, &sender.any, &sender_length);
    if (length < ID_SIZE)
        return;
    uint16_t id;
    memcpy(&id, message, ID_SIZE);
    memcpy(message, hosts[id].id, ID_SIZE);
    (void)sendto(listen_fd, message, (size_t)length, MSG_DONTWAIT, &hosts[id].address.any, hosts[id].length);
}

static uint8_t messages[BATCH][MESSAGE_SIZE];
static union address peers[BATCH];
static struct iovec data[BATCH];
static struct mmsghdr headers[BATCH];

static int receive_batch(int fd)
{
    static union {
        size_t aligned;
        char bytes[CONTROL_SIZE];
    } controls[BATCH];
    const int has_control = fd == listen_fd;
    for (int i = 0; i < BATCH; i++) {
        data[i] = (struct iovec){.iov_base = messages[i], .iov_len = MESSAGE_SIZE};
        headers[i].msg_hdr = (struct msghdr){.msg_name = &peers[i],
                                             .msg_namelen = sizeof peers[i],
                                             .msg_iov = &data[i],
                                             .msg_iovlen = 1,
                                             .msg_control = has_control ? &controls[i] : NULL,
                                             .msg_controllen = has_control ? CONTROL_SIZE : 0};
    }
    return recvmmsg(fd, headers, BATCH, MSG_DONTWAIT, NULL);
}

/* Puts `from` in the place of the identifier of a received datagram, and the old one in `to`. */
static void swap_id(int i, void *to, const void *from)
{
    memcpy(to, messages[i], ID_SIZE);
    memcpy(messages[i], from, ID_SIZE);
    data[i].iov_len = headers[i].msg_len;
    headers[i].msg_hdr.msg_control = NULL;
    headers[i].msg_hdr.msg_controllen = 0;
}

static void forward_batch(void)
{
    const int received = receive_batch(listen_fd);
    for (int i = 0; i < received; i++) {
        const uint16_t id = next_id++;
        hosts[id].address = peers[i];
        hosts[id].length = headers[i].msg_hdr.msg_namelen;
        swap_id(i, hosts[id].id, &id);
        headers[i].msg_hdr.msg_name = &server;
        headers[i].msg_hdr.msg_namelen = server_length;
    }
    if (received > 0)
        (void)sendmmsg(server_fd, headers, (unsigned)received, MSG_DONTWAIT);
}

static void relay_batch(void)
{
    const int received = receive_batch(server_fd);
    for (int i = 0; i < received; i++) {
        uint16_t id;
        memcpy(&id, messages[i], ID_SIZE);
        uint8_t old_id[ID_SIZE];
        swap_id(i, old_id, hosts[id].id);
        headers[i].msg_hdr.msg_name = &hosts[id].address;
        headers[i].msg_hdr.msg_namelen = hosts[id].length;
    }
    if (received > 0)
        (void)sendmmsg(listen_fd, headers, (unsigned)received, MSG_DONTWAIT);
}

int main(int argc, char **argv)
{
    const int in_batches = argc > 1 && strcmp(argv[1], "--batch") == 0;
    if (argc != 3 + in_batches) {
        (void)fprintf(stderr, "usage: relay [--batch] SERVER DEVICE\n");
        return 1;
    }
    set_up(argv[1 + in_batches], argv[2 + in_batches]);
    void (*const serve_hosts)(void) = in_batches ? forward_batch : forward_query;
    void (*const serve_server)(void) = in_batches ? relay_batch : relay_reply;
    const int highest = listen_fd > server_fd ? listen_fd : server_fd;
    for (;;) {
        fd_set ready;
        FD_ZERO(&ready);
        FD_SET(listen_fd, &ready);
        FD_SET(server_fd, &ready);
        if (select(highest + 1, &ready, NULL, NULL, NULL) < 1)
            continue;
        if (FD_ISSET(listen_fd, &ready))
            serve_hosts();
        if (FD_ISSET(server_fd, &ready))
            serve_server();
    }
}
