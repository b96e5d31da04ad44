#include "status.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>

#include "wan_lines.h"
#include "text.h"

namespace {

constexpr struct {
    const char *name;
    const char *key;
    process port53::*owner;
} families[] = {{"IPv4", "ipv4", &port53::ipv4}, {"IPv6", "ipv6", &port53::ipv6}};

const char *state_text(link_state state)
{
    switch (state) {
    case link_state::up:
        return "on";
    case link_state::down:
        return "off";
    default:
        return nullptr;
    }
}

// The servers of a family that are there, each behind what is given.
template <class Address> void put_servers(int af, const Address (&servers)[2], const char *before, bool json)
{
    static constexpr Address none = {};
    const char *separator = "";
    for (const Address &server : servers) {
        char text[INET6_ADDRSTRLEN];
        if (memcmp(&server, &none, sizeof none) == 0)
            continue;
        (void)inet_ntop(af, &server, text, sizeof text);
        fputs(json ? separator : before, stdout);
        if (json)
            put_json(text);
        else
            fputs(text, stdout);
        separator = ",";
    }
}

void put_owners_json(const port53 &port)
{
    printf("{\"serving\":%s", port.served() ? "true" : "false");
    const char *separator = ",\"port53\":{";
    for (const auto &family : families) {
        const process &owner = port.*family.owner;
        printf("%s\"%s\":", separator, family.key);
        separator = ",";
        if (owner.pid == 0) {
            fputs("null", stdout);
            continue;
        }
        printf("{\"process\":%d,\"name\":", owner.pid);
        put_json(owner.name);
        putchar('}');
    }
    putchar('}');
}

void put_owners(const port53 &port)
{
    printf("serving: %s\n", port.served() ? "yes" : "no");
    for (const auto &family : families) {
        const process &owner = port.*family.owner;
        printf("UDP port 53 over %s: ", family.name);
        if (owner.pid == 0)
            puts("nobody");
        else
            printf("%s (process %d)\n", printable(owner.name).text, owner.pid);
    }
}

void put_line_json(const line &l)
{
    printf("{\"device\":");
    put_json(l.device);
    printf(",\"interface\":");
    put_json_or_null(l.logical);
    printf(",\"state\":");
    put_json_or_null(state_text(l.state));
    printf(",\"uses\":");
    if (l.uses >= 0)
        printf("%ld", l.uses);
    else
        printf("null");
    printf(",\"ipv4\":[");
    put_servers(AF_INET, l.ipv4, "", true);
    printf(l.ipv6_known ? "],\"ipv6\":[" : "],\"ipv6\":null}");
    if (l.ipv6_known) {
        put_servers(AF_INET6, l.ipv6, "", true);
        printf("]}");
    }
}

void put_line(const line &l)
{
    printf("%-15s ", printable(l.device).text);
    printf("%-15s ", l.logical[0] != '\0' ? printable(l.logical).text : "-");
    printf("%-6s ", state_text(l.state) != nullptr ? state_text(l.state) : "-");
    if (l.uses >= 0)
        printf("%-8ld", l.uses);
    else
        printf("%-8s", "-");
    put_servers(AF_INET, l.ipv4, " ", false);
    put_servers(AF_INET6, l.ipv6, " ", false);
    puts(l.ipv6_known ? l.has_server() ? "" : " none" : " (IPv6 unknown)");
}

} // namespace

status_result show_status(format form)
{
    static line_table table;
    const port53 port = port53_owners();
    lines_read(&table, port);
    const bool json = form == format::json;
    if (json)
        put_owners_json(port);
    else
        put_owners(port);
    if (json)
        printf(table.status < 0 ? ",\"lines\":null" : ",\"lines\":[");
    else if (table.status >= 0)
        printf("\n%-15s %-15s %-6s %-8s %s\n", "DEVICE", "NAME", "STATE", "USES", "SERVERS");
    for (int i = 0; i < table.count && table.status >= 0; i++) {
        if (json && i > 0)
            putchar(',');
        if (json)
            put_line_json(table.lines[i]);
        else
            put_line(table.lines[i]);
    }
    if (json)
        puts(table.status < 0 ? "}" : "]}");
    return {.daemon = table.status, .serving = port.served()};
}
