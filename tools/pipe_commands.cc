#include "pipe_commands.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "answer.h"
#include "port53.h"
#include "request.h"
#include "servers.h"

namespace {

constexpr char any_interface[] = "loopback"; // can always be mapped

using msg = dnsproxy_public_msg;

// The errno of the last request.
int pipe_error;

int send_plain(msg *m, const server_list *)
{
    return request_within(m, COMMAND_WAIT_MS, &pipe_error);
}

int send_servers(msg *m, const server_list *servers)
{
    servers_to_msg(servers, m);
    return send_plain(m, servers);
}

// Both flags are needed to make an interface, whatever the number of its servers.
int send_new(msg *m, const server_list *servers)
{
    servers_to_msg(servers, m);
    m->dnsFlag = 1;
    m->dns2Flag = 1;
    return send_plain(m, servers);
}

// An IPv4 address of 0 leaves what is there, but an IPv6 address is taken whenever the flag that it shares
// with the IPv4 address is set. One of IPv6 beside two of IPv4 would clear the second IPv6 server: then each
// family gets a request of its own.
int send_set(msg *m, const server_list *servers)
{
    if (servers->v6_count == 0 || servers->v6_count >= servers->v4_count)
        return send_servers(m, servers);
    server_list v4 = *servers;
    v4.v6_count = 0;
    const int status = send_servers(m, &v4);
    if (status < 0)
        return status;
    server_list v6 = *servers;
    v6.v4_count = 0;
    return send_servers(m, &v6);
}

struct pipe_command {
    const char *name;
    uint32_t op;
    int (*send)(msg *m, const server_list *servers);
    void (*show)(const msg *reply, format form);
};

constexpr pipe_command commands[] = {
    {"list", DNSPROXY_DNS_SERVER_GETIFS, send_plain, show_interfaces},
    {"addrs", DNSPROXY_DNS_SERVER_GETADDRS, send_plain, show_addresses},
    {"get", DNSPROXY_DNS_SERVER_GET, send_plain, show_servers},
    {"set", DNSPROXY_DNS_SERVER_SET, send_set, show_change},
    {"add", DNSPROXY_DNS_SERVER_ADD, send_new, show_change},
    {"put", DNSPROXY_DNS_SERVER_ADDORSET, send_new, show_change},
    {"del", DNSPROXY_DNS_SERVER_DEL, send_plain, show_change},
    {"delall", DNSPROXY_DNS_SERVER_DELALL, send_plain, show_change},
};

const char *words_for(int status, const msg *m)
{
    switch (status) {
    case DNSPROXY_EINVALID:
        return "cannot be mapped to a device";
    case DNSPROXY_ENOMEMORY:
        return "out of memory";
    case DNSPROXY_EEXISTS:
        return m->noV6 == 0 ? "interface exists; its IPv6 servers were replaced" : "interface exists";
    case DNSPROXY_ENOTFOUND:
        return "no such interface";
    default:
        return "refused";
    }
}

int report_failure(int status, const msg *m)
{
    if (status == DNSPROXY_ERESOURCE)
        return failure(EXIT_UNREACHABLE, "%s (%d)", no_reply_words(pipe_error), status);
    return failure(EXIT_REFUSED, "%s: %s (%d)", m->ifname, words_for(status, m), status);
}

// A daemon that could not have the port serves no requests either; waiting for it is in vain.
int refuse_if_port_is_taken()
{
    const port53 port = port53_owners();
    const process &other = port.ipv4.is_other() ? port.ipv4 : port.ipv6;
    if (!other.is_other() || port.ipv4.is_daemon())
        return EXIT_DONE;
    return failure(EXIT_UNREACHABLE,
                   "dnsproxyd does not serve: UDP port 53 over %s belongs to %s (process %d)",
                   port.ipv4.is_other() ? "IPv4" : "IPv6", other.name, other.pid);
}

} // namespace

int run_pipe_command(const invocation &given)
{
    const pipe_command *c =
        std::find_if(std::begin(commands), std::end(commands),
                     [&given](const auto &each) { return strcmp(each.name, given.command) == 0; });
    const char *interface = given.count > 0 ? given.operands[0] : any_interface;
    if (interface[0] == '\0')
        return usage_error("%s: the interface name is empty", given.command);
    if (strlen(interface) >= sizeof msg::ifname)
        return usage_error("%s: longer than %zu characters", interface, sizeof msg::ifname - 1);
    if (given.count > 0 && strcmp(interface, any_interface) == 0)
        return usage_error("%s: %s is the router itself and no line", given.command, interface);
    server_list servers = {};
    for (int i = 1; i < given.count; i++) {
        const char *wrong = servers_append(&servers, given.operands[i]);
        if (wrong != nullptr)
            return usage_error("%s: %s", given.operands[i], wrong);
    }
    const int refused = refuse_if_port_is_taken();
    if (refused != EXIT_DONE)
        return refused;

    msg m = {};
    m.op = c->op;
    memcpy(m.ifname, interface, strlen(interface) + 1);
    const int status = c->send(&m, &servers);
    if (status < 0)
        return report_failure(status, &m);
    c->show(&m, given.form);
    if (c->op == DNSPROXY_DNS_SERVER_GETADDRS || c->op == DNSPROXY_DNS_SERVER_GETIFS)
        free(trailing_data(&m));
    return finish_output();
}
