#include "status.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstring>

#include "request.h"
#include "text.h"
#include "wan_lines.h"

namespace {

constexpr char run_as_root[] = "run it as root";
constexpr int columns = 80;        // of a terminal
constexpr int servers_column = 46; // where the servers of a line begin

constexpr struct {
    const char *name;
    const char *key;
    process port53::*owner;
} families[] = {{"IPv4", "ipv4", &port53::ipv4}, {"IPv6", "ipv6", &port53::ipv6}};

// A line table is empty where the daemon has no line, and not known where it did not answer.
enum served serving(const port53 &port, const line_table &table)
{
    const bool has_none = table.known && table.servers_known() && !table.has_server();
    return has_none ? served::no : port.served();
}

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

// A server of a line as text; empty: there is none.
struct server_text {
    char text[INET6_ADDRSTRLEN] = "";

    server_text(const line &l, int family, int slot)
    {
        if (family == 0 && l.ipv4[slot].s_addr != 0)
            (void)inet_ntop(AF_INET, &l.ipv4[slot], text, sizeof text);
        const in6_addr v6 = l.ipv6[slot];
        if (family == 1 && !IN6_IS_ADDR_UNSPECIFIED(&v6))
            (void)inet_ntop(AF_INET6, &v6, text, sizeof text);
    }
};

void put_owners_json(const port53 &port, served serves)
{
    printf("{\"serving\":%s", serves == served::unknown ? "null" : serves == served::yes ? "true" : "false");
    const char *separator = ",\"port53\":{";
    for (const auto &family : families) {
        const process &owner = port.*family.owner;
        printf("%s\"%s\":", separator, family.key);
        separator = ",";
        if (owner.pid == 0) {
            fputs("null", stdout);
        } else if (owner.is_hidden()) {
            fputs("{\"process\":null,\"name\":null}", stdout);
        } else {
            printf("{\"process\":%d,\"name\":", owner.pid);
            put_json(owner.name);
            putchar('}');
        }
    }
    putchar('}');
}

void put_owners(const port53 &port, served serves)
{
    if (serves == served::unknown)
        printf("serving: ? (%s)\n", run_as_root);
    else if (serves == served::no && port.served() == served::yes)
        puts("serving: no (no line has a DNS server)");
    else
        printf("serving: %s\n", serves == served::yes ? "yes" : "no");
    for (const auto &family : families) {
        const process &owner = port.*family.owner;
        printf("UDP port 53 over %s: ", family.name);
        if (owner.pid == 0)
            puts("nobody");
        else if (owner.is_hidden())
            printf("? (%s)\n", run_as_root);
        else
            printf("%s (process %d)\n", printable(owner.name).text, owner.pid);
    }
}

void put_family_json(const line &l, int family, bool is_known)
{
    printf(",\"%s\":", families[family].key);
    if (!is_known) {
        fputs("null", stdout);
        return;
    }
    for (int slot = 0; slot < SLOTS; slot++) {
        putchar(slot == 0 ? '[' : ',');
        put_json_or_null(server_text(l, family, slot).text);
    }
    putchar(']');
}

void put_shares_json(const line &l)
{
    for (int family = 0; family < FAMILIES; family++) {
        printf("%s\"%s\":", family == 0 ? ",\"answered\":{" : ",", families[family].key);
        for (int slot = 0; slot < SLOTS; slot++) {
            putchar(slot == 0 ? '[' : ',');
            if (l.answered[family][slot] < 0)
                fputs("null", stdout);
            else
                printf("%.3f", l.answered[family][slot] / 1000.0);
        }
        putchar(']');
    }
    putchar('}');
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
    if (l.uses != json_unknown)
        printf("%llu", static_cast<unsigned long long>(l.uses));
    else
        printf("null");
    put_family_json(l, 0, l.ipv4_known);
    put_family_json(l, 1, l.ipv6_known);
    put_shares_json(l);
    putchar('}');
}

// As many servers beside each other as there is room for.
void put_servers(const line &l)
{
    int at = servers_column;
    for (int family = 0; family < FAMILIES; family++) {
        for (int slot = 0; slot < SLOTS; slot++) {
            const server_text server(l, family, slot);
            if (server.text[0] == '\0')
                continue;
            char share[16] = "";
            if (l.answered[family][slot] >= 0)
                (void)snprintf(share, sizeof share, " (%d%%)", l.answered[family][slot] / 10);
            const auto width = static_cast<int>(1 + strlen(server.text) + strlen(share));
            if (at > servers_column && at + width > columns) {
                printf("\n%*s", servers_column, "");
                at = servers_column;
            }
            printf(" %s%s", server.text, share);
            at += width;
        }
    }
    if (!l.ipv4_known || !l.ipv6_known)
        puts(l.ipv4_known ? " (IPv6 ?)" : " ?");
    else
        puts(l.has_server() ? "" : " none");
}

void put_line(const line &l)
{
    printf("%-15s ", printable(l.device).text);
    printf("%-15s ", l.logical[0] != '\0' ? printable(l.logical).text : "-");
    printf("%-5s ", state_text(l.state) != nullptr ? state_text(l.state) : "?");
    if (l.uses != json_unknown)
        printf("%-8llu", static_cast<unsigned long long>(l.uses));
    else
        printf("%-8s", "?");
    put_servers(l);
}

void put_lines(const line_table &table)
{
    if (!table.known)
        return;
    printf("\n%-15s %-15s %-5s %-8s %s\n", "DEVICE", "NAME", "STATE", "USES", "SERVERS");
    for (int i = 0; i < table.count; i++)
        put_line(table.lines[i]);
    if (table.bus != bus_result::done || !table.servers_known())
        printf("? is not known: %s\n", table.bus != bus_result::done
                                           ? bus_words(table.bus)
                                           : "this dnsproxyd has no statistics on the bus");
}

void put_lines_json(const line_table &table)
{
    fputs(table.known ? ",\"lines\":[" : ",\"lines\":null}\n", stdout);
    for (int i = 0; i < table.count && table.known; i++) {
        if (i > 0)
            putchar(',');
        put_line_json(table.lines[i]);
    }
    if (table.known)
        puts("]}");
}

} // namespace

int run_status(const invocation &given)
{
    line_table table = {};
    const port53 port = port53_owners();
    lines_read(&table, port);
    lines_name(&table);
    const served serves = serving(port, table);
    if (given.form == format::json) {
        put_owners_json(port, serves);
        put_lines_json(table);
    } else {
        put_owners(port, serves);
        put_lines(table);
    }
    const bool known = table.known;
    const int pipe_error = table.pipe_error;
    const bus_result bus = table.bus;
    lines_free(&table);
    const int printed = finish_output();
    if (serves == served::no)
        return EXIT_REFUSED;
    if (known)
        return serves == served::yes ? printed : EXIT_UNREACHABLE;
    return failure(EXIT_UNREACHABLE, "%s; %s", no_reply_words(pipe_error), bus_words(bus));
}
