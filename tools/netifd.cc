#include "netifd.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <net/if.h>

#include "bus.h"

bool netifd_read(netifd *n)
{
    *n = {};
    if (bus_call("network.interface", "dump", "{}", &n->text) != bus_result::done)
        return false;
    n->interfaces = json_read(n->text).member("interface");
    return n->interfaces.first().at != nullptr;
}

void netifd_free(netifd *n)
{
    free(n->text);
    *n = {};
}

void netifd_servers(const netifd &n, const char *device,
                    bool (*each)(const char *text, const in6_addr &server, void *context), void *context)
{
    for (json network = n.interfaces.first(); network; network = network.next()) {
        char its[IF_NAMESIZE];
        if (!network.member("up").is_true() || !network.member("l3_device").copy(its, sizeof its) ||
            strcmp(its, device) != 0)
            continue;
        for (json server = network.member("dns-server").first(); server; server = server.next()) {
            char text[INET6_ADDRSTRLEN];
            in6_addr address = {};
            if (!server.copy(text, sizeof text))
                continue;
            in_addr v4 = {};
            if (inet_pton(AF_INET, text, &v4) == 1) {
                address.s6_addr[10] = 0xff;
                address.s6_addr[11] = 0xff;
                memcpy(address.s6_addr + 12, &v4, sizeof v4);
            } else if (inet_pton(AF_INET6, text, &address) != 1) {
                continue;
            }
            if (!each(text, address, context))
                return;
        }
    }
}
