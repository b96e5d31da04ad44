// What differs between the two families, so that every operation is written once: the address types, which
// members of a server interface belong to the family, and what makes a slot a server. An operation that needs
// more (log texts, the request cache, the way back to the host) derives its own traits from these.
//
// The named operations, with "_v6" on the IPv6 twin, are thin entry points to the one template.
#ifndef IFACE_FAMILY_H
#define IFACE_FAMILY_H

#include <arpa/inet.h>
#include <cstring>
#include <netinet/in.h>

#include "iface/server_if.h"

constexpr uint16_t DNSPROXY_DNS_PORT = 53;

// Buffer for an IPv6 address as text, and the size that is told to inet_ntop.
constexpr size_t DNSPROXY_ADDRESS_TEXT = INET6_ADDRSTRLEN;

struct ipv4 {
    static constexpr int af = AF_INET;
    using sockaddr_type = sockaddr_in;
    using slot_check = int (*)(uint64_t slot);

    static constexpr auto fd = &dnsproxy_server_if::serverFd;
    static constexpr auto tmo = &dnsproxy_server_if::serverTmo;
    static constexpr auto counters = &dnsproxy_server_if::counters;

    static bool slot_passes(slot_check check, const dnsproxy_server_if *sif, int slot)
    {
        return check(sif->dnsServer[slot]) != 0;
    }

    static bool has_server(const dnsproxy_server_if *sif, int slot)
    {
        return slot_passes(dnsproxy_server_addr_check, sif, slot);
    }

    static sockaddr_in destination(const dnsproxy_server_if *sif, int slot)
    {
        sockaddr_in to = {};
        to.sin_family = AF_INET;
        to.sin_port = htons(DNSPROXY_DNS_PORT);
        to.sin_addr.s_addr = static_cast<uint32_t>(sif->dnsServer[slot]);
        return to;
    }

    static bool is_server(const dnsproxy_server_if *sif, int slot, const sockaddr_in &sender)
    {
        return sender.sin_addr.s_addr == static_cast<uint32_t>(sif->dnsServer[slot]);
    }
};

struct ipv6 {
    static constexpr int af = AF_INET6;
    using sockaddr_type = sockaddr_in6;
    using slot_check = int (*)(const char *text);

    static constexpr auto fd = &dnsproxy_server_if::serverFd6;
    static constexpr auto tmo = &dnsproxy_server_if::serverTmo6;
    static constexpr auto counters = &dnsproxy_server_if::counters6;

    static bool slot_passes(slot_check check, const dnsproxy_server_if *sif, int slot)
    {
        const in6_addr &address = sif->dnsServer6[slot].sin6_addr;
        // The check of the daemon refuses "::" alone, which takes no text to see.
        if (check == dnsproxy_check_dnsserver_v6)
            return !IN6_IS_ADDR_UNSPECIFIED(&address) || check("::") != 0;
        char text[DNSPROXY_ADDRESS_TEXT] = {};
        return check(inet_ntop(AF_INET6, &address, text, sizeof text - 1)) != 0;
    }

    static bool has_server(const dnsproxy_server_if *sif, int slot)
    {
        return slot_passes(dnsproxy_check_dnsserver_v6, sif, slot);
    }

    static sockaddr_in6 destination(const dnsproxy_server_if *sif, int slot)
    {
        sockaddr_in6 to = {};
        to.sin6_family = AF_INET6;
        to.sin6_port = htons(DNSPROXY_DNS_PORT);
        to.sin6_addr = sif->dnsServer6[slot].sin6_addr;
        return to;
    }

    static bool is_server(const dnsproxy_server_if *sif, int slot, const sockaddr_in6 &sender)
    {
        return IN6_ARE_ADDR_EQUAL(&sender.sin6_addr, &sif->dnsServer6[slot].sin6_addr);
    }
};

#endif
