/* The public header and library from plain C, with no daemon running. Run by lab/enter. */

#include <dnsproxy/client.h>

#include <stddef.h>
#include <stdio.h>
#include <string.h>

/* The layout as other languages know it; a wrong line does not compile. */
#define HOLDS(name, condition) typedef char name[(condition) ? 1 : -1]
#define AT(field, offset) HOLDS(field##_is_at, offsetof(struct dnsproxy_public_msg, field) == (offset))
HOLDS(message_size, sizeof(struct dnsproxy_public_msg) == 240);
AT(op, 0);
AT(pipeName, 4);
AT(ifname, 104);
AT(dnsFlag, 120);
AT(dns2Flag, 124);
AT(dns, 128);
AT(dns2, 136);
AT(dns6, 144);
AT(dns6_2, 172);
AT(noV4, 200);
AT(noV6, 204);
AT(count, 208);
AT(data, 216);
AT(dataLen, 224);
AT(result, 232);
AT(reserved, 236);
HOLDS(entry_size, sizeof(struct dnsproxy_public_if) == 32);
HOLDS(entry_dns, offsetof(struct dnsproxy_public_if, dns) == 16);
HOLDS(entry_dns2, offsetof(struct dnsproxy_public_if, dns2) == 24);

#define CHECK(condition)                                                                                     \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition);                                  \
            failures++;                                                                                      \
        }                                                                                                    \
    } while (0)

int main(void)
{
    struct dnsproxy_public_msg msg;
    struct dnsproxy_public_msg before;
    int fd = 77;
    int failures = 0;

    memset(&msg, 0, sizeof msg);
    msg.op = DNSPROXY_DNS_SERVER_SET;
    strcpy(msg.ifname, "loopback");
    msg.dnsFlag = 1;
    before = msg;
    CHECK(dnsproxy_public_dnsServer(&msg) == DNSPROXY_ERESOURCE);
    CHECK(memcmp(&msg, &before, sizeof msg) == 0);
    CHECK(dnsproxy_public_dnsServer(NULL) == DNSPROXY_EINVALID);
    CHECK(dnsproxy_public_pipeOpen(&fd) == DNSPROXY_ERESOURCE);
    CHECK(fd == -1);
    CHECK(dnsproxy_public_getDnsServerAll() == 0);
    return failures == 0 ? 0 : 1;
}
