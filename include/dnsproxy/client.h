/*
 * Asks a running dnsproxyd for its upstream DNS servers, or changes them.
 *
 * A caller fills a dnsproxy_public_msg and calls dnsproxy_public_dnsServer, which sends it, waits for the
 * daemon's reply (10 seconds at most) and stores it in the same message. The calls print nothing, keep no
 * state, leave signals, locale and the random state of the caller alone, and may be made from several threads
 * at once. The daemon's pipes belong to its user (root).
 */
#ifndef DNSPROXY_CLIENT_H
#define DNSPROXY_CLIENT_H

#include <netinet/in.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Operations. */
enum {
    DNSPROXY_DNS_SERVER_GET = 1,      /* the servers of an interface */
    DNSPROXY_DNS_SERVER_SET = 2,      /* change servers of an interface that is there */
    DNSPROXY_DNS_SERVER_ADD = 3,      /* make an interface; both flags must be set */
    DNSPROXY_DNS_SERVER_DEL = 4,      /* delete an interface */
    DNSPROXY_DNS_SERVER_GETALL = 5,   /* always refused */
    DNSPROXY_DNS_SERVER_ADDORSET = 6, /* SET if the interface is there, else ADD */
    DNSPROXY_DNS_SERVER_GETADDRS = 7, /* all IPv4 servers, as trailing data */
    DNSPROXY_DNS_SERVER_GETIFS = 8,   /* all interfaces with their IPv4 servers, as trailing data */
    DNSPROXY_DNS_SERVER_DELALL = 9    /* delete all interfaces except VPN devices ("lt-...", "pt-...") */
};

/* Results; 0 and positive values are success. */
enum {
    DNSPROXY_ERESOURCE = -9001, /* the daemon is not there, did not answer, or a pipe failed */
    DNSPROXY_EINVALID = -9002,  /* bad operation, missing flags, or a name that cannot be mapped */
    DNSPROXY_ENOMEMORY = -9003, /* no memory, in the daemon or in the caller */
    DNSPROXY_EEXISTS = -9004,   /* ADD of an interface that is there; its IPv6 servers were replaced */
    DNSPROXY_ENOTFOUND = -9005  /* no such interface */
};

/*
 * Request and reply: 240 bytes, host byte order but for addresses. An IPv4 server is a 64-bit slot with the
 * address in network byte order in the low 32 bits (as inet_addr gives it), the upper 32 bits zero; 0 is no
 * server. Of an IPv6 server only sin6_addr counts; "::" is no server.
 */
struct dnsproxy_public_msg {
    uint32_t op;
    char pipeName[100];       /* reply pipe; filled in by the call */
    char ifname[16];          /* logical interface name; every operation needs one that can be mapped, such */
                              /* as "loopback" where no interface is meant (ops 7, 8 and 9) */
    uint32_t dnsFlag;         /* nonzero: dns and dns6 are given */
    uint32_t dns2Flag;        /* nonzero: dns2 and dns6_2 are given */
    uint64_t dns;             /* first IPv4 server; 0 leaves what is there (SET) */
    uint64_t dns2;            /* second IPv4 server */
    struct sockaddr_in6 dns6; /* first IPv6 server; "::" clears it (SET) */
    struct sockaddr_in6 dns6_2; /* second IPv6 server */
    int32_t noV4;               /* 1: leave the IPv4 servers alone */
    int32_t noV6;               /* 1: leave the IPv6 servers alone */
    uint64_t count;             /* reply of ops 7 and 8: valid entries in the trailing data */
    uint64_t data;              /* reply of ops 7 and 8: address of the trailing data, see below */
    uint64_t dataLen;           /* reply of ops 7 and 8: bytes of the trailing data */
    int32_t result;             /* reply: status of the operation */
    uint32_t reserved;          /* not interpreted */
};

/* Trailing data of op 8: `count` of these. That of op 7 is an array of `count` 64-bit slots. */
struct dnsproxy_public_if {
    char ifname[16]; /* device name, padded with zeros */
    uint64_t dns;
    uint64_t dns2;
};

#ifdef __GNUC__
#pragma GCC visibility push(default)
#endif

/*
 * Opens the daemon's request pipe for writing. 0 with the descriptor in *fd, which the caller closes, or
 * DNSPROXY_ERESOURCE with -1 in *fd: no daemon is running.
 */
int dnsproxy_public_pipeOpen(int *fd);

/*
 * Sends `msg` and waits for the reply. The reply's result when it is 0 or positive: then *msg holds the
 * reply. After ops 7 and 8, `data` is the address of a buffer of `dataLen` bytes, 0 when there are none,
 * which the caller frees with free(). A negative result is the daemon's refusal or a failure of the call
 * itself (DNSPROXY_ERESOURCE, DNSPROXY_ENOMEMORY, DNSPROXY_EINVALID for a null argument); *msg is then as it
 * was, but for pipeName, and holds nothing to free.
 */
int dnsproxy_public_dnsServer(struct dnsproxy_public_msg *msg);

/* Does nothing; 0. */
int dnsproxy_public_getDnsServerAll(void);

#ifdef __GNUC__
#pragma GCC visibility pop
#endif

#ifdef __cplusplus
}
#endif

#endif
