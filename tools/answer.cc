#include "answer.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <span>

#include "request.h"
#include "text.h"

namespace {

// A server as text; empty when there is none.
struct address_text {
    char text[INET6_ADDRSTRLEN] = "";

    explicit address_text(uint64_t slot)
    {
        const in_addr v4 = {.s_addr = static_cast<uint32_t>(slot)};
        if (v4.s_addr != 0)
            (void)inet_ntop(AF_INET, &v4, text, sizeof text);
    }
    explicit address_text(const sockaddr_in6 &server)
    {
        const in6_addr v6 = server.sin6_addr;
        if (!IN6_IS_ADDR_UNSPECIFIED(&v6))
            (void)inet_ntop(AF_INET6, &v6, text, sizeof text);
    }
    [[nodiscard]] bool empty() const { return text[0] == '\0'; }
    [[nodiscard]] const char *column() const { return empty() ? "-" : text; }
};

// A name in a reply, which may lack its NUL.
struct name_text {
    char text[sizeof dnsproxy_public_msg::ifname + 1] = "";

    explicit name_text(const char (&field)[sizeof dnsproxy_public_msg::ifname])
    {
        memcpy(text, field, sizeof field);
    }
};

template <class Server> void put_json_pair(const char *key, const Server &first, const Server &second)
{
    printf(",\"%s\":[", key);
    put_json_or_null(address_text(first).text);
    putchar(',');
    put_json_or_null(address_text(second).text);
    putchar(']');
}

template <class Server> void put_family(const char *family, const Server &first, const Server &second)
{
    printf("%-7s %-39s %s\n", family, address_text(first).column(), address_text(second).column());
}

// The valid entries of the trailing data.
template <class Entry> std::span<const Entry> entries(const dnsproxy_public_msg *reply)
{
    const uint64_t room = reply->dataLen / sizeof(Entry);
    return {static_cast<const Entry *>(trailing_data(reply)),
            static_cast<size_t>(std::min(reply->count, room))};
}

} // namespace

void show_servers(const dnsproxy_public_msg *reply, format form)
{
    const name_text name(reply->ifname);
    if (form == format::json) {
        fputs("{\"interface\":", stdout);
        put_json(name.text);
        put_json_pair("ipv4", reply->dns, reply->dns2);
        put_json_pair("ipv6", reply->dns6, reply->dns6_2);
        puts("}");
        return;
    }
    printf("%-7s %-39s %s\n", "FAMILY", "FIRST", "SECOND");
    put_family("IPv4", reply->dns, reply->dns2);
    put_family("IPv6", reply->dns6, reply->dns6_2);
}

void show_addresses(const dnsproxy_public_msg *reply, format form)
{
    const char *separator = "";
    if (form == format::json)
        fputs("{\"addresses\":[", stdout);
    for (const uint64_t slot : entries<uint64_t>(reply)) {
        const address_text address(slot);
        if (form == format::columns) {
            puts(address.column());
            continue;
        }
        fputs(separator, stdout);
        put_json_or_null(address.text);
        separator = ",";
    }
    if (form == format::json)
        puts("]}");
}

void show_interfaces(const dnsproxy_public_msg *reply, format form)
{
    const char *separator = "";
    if (form == format::json)
        fputs("{\"interfaces\":[", stdout);
    else
        printf("%-15s %-15s %s\n", "DEVICE", "FIRST", "SECOND");
    for (const dnsproxy_public_if &entry : entries<dnsproxy_public_if>(reply)) {
        const name_text name(entry.ifname);
        if (form == format::columns) {
            printf("%-15s %-15s %s\n", printable(name.text).text, address_text(entry.dns).column(),
                   address_text(entry.dns2).column());
            continue;
        }
        printf("%s{\"device\":", separator);
        put_json(name.text);
        put_json_pair("ipv4", entry.dns, entry.dns2);
        putchar('}');
        separator = ",";
    }
    if (form == format::json)
        puts("]}");
}

void show_change(const dnsproxy_public_msg *reply, format form)
{
    if (form == format::json)
        printf("{\"result\":%d}\n", reply->result);
}
