/*
 * The least that a DNS proxy can do: no table, no timer, no rule. One device, one server, one family; the
 * form of the server's address is the family that is served. Per query it waits, receives with the arrival
 * device, sends, waits, receives the reply and sends that, as a proxy on select.
 *
 * relay SERVER DEVICE
 */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>

enum { DNS_PORT = 53, MESSAGE_SIZE = 1600, CONTROL_SIZE = 256, ID_SIZE = 2 };

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

int main(int argc, char **argv)
{
    if (argc != 3) {
        (void)fprintf(stderr, "usage: relay SERVER DEVICE\n");
        return 1;
    }
    set_up(argv[1], argv[2]);
    const int highest = listen_fd > server_fd ? listen_fd : server_fd;
    for (;;) {
        fd_set ready;
        FD_ZERO(&ready);
        FD_SET(listen_fd, &ready);
        FD_SET(server_fd, &ready);
        if (select(highest + 1, &ready, NULL, NULL, NULL) < 1)
            continue;
        if (FD_ISSET(listen_fd, &ready))
            forward_query();
        if (FD_ISSET(server_fd, &ready))
            relay_reply();
    }
}
