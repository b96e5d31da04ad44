#include "servers.h"

#include <algorithm>
#include <arpa/inet.h>
#include <iterator>

const char *servers_append(server_list *servers, const char *text)
{
    in_addr v4 = {};
    if (inet_pton(AF_INET, text, &v4) == 1) {
        if (servers->v4_count == std::ssize(servers->v4))
            return "more than two IPv4 servers";
        servers->v4[servers->v4_count++] = v4.s_addr;
        return nullptr;
    }
    sockaddr_in6 v6 = {};
    v6.sin6_family = AF_INET6;
    if (inet_pton(AF_INET6, text, &v6.sin6_addr) == 1) {
        if (servers->v6_count == std::ssize(servers->v6))
            return "more than two IPv6 servers";
        servers->v6[servers->v6_count++] = v6;
        return nullptr;
    }
    return "not an IPv4 or IPv6 address";
}

void servers_to_msg(const server_list *servers, dnsproxy_public_msg *msg)
{
    const int longer = std::max(servers->v4_count, servers->v6_count);
    msg->dnsFlag = longer >= 1 ? 1 : 0;
    msg->dns2Flag = longer >= 2 ? 1 : 0;
    msg->dns = servers->v4[0];
    msg->dns2 = servers->v4[1];
    msg->dns6 = servers->v6[0];
    msg->dns6_2 = servers->v6[1];
    msg->noV4 = servers->v4_count == 0 ? 1 : 0;
    msg->noV6 = servers->v6_count == 0 ? 1 : 0;
}
