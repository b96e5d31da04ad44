// The differences between IPv4 and IPv6. Every operation is written once, as a template over Family; the
// named operations ("_v6" on the IPv6 twin) are its thin entry points. This header holds the differences that
// several files need. A file X.cc with such operations has the others in X_families.h.
#ifndef IFACE_FAMILY_H
#define IFACE_FAMILY_H

#include <arpa/inet.h>
#include <cstring>
#include <netinet/in.h>

#include "core/read_ahead.h"
#include "iface/server_if.h"

constexpr uint16_t DNSPROXY_DNS_PORT = 53;

// Buffer for an IPv6 address as text.
constexpr size_t DNSPROXY_ADDRESS_TEXT = INET6_ADDRSTRLEN;

struct ipv4 {
    static constexpr int af = AF_INET;
    using sockaddr_type = sockaddr_in;
    using slot_check = int (*)(uint64_t slot);

    static const sockaddr_in &sender(const dns_datagram &d) { return d.sender.v4; }
    static int32_t &fd(dnsproxy_server_if *sif) { return sif->serverFd; }
    static ipcom_tmo2 &tmo(dnsproxy_server_if *sif) { return sif->serverTmo; }
    static line_counters &counters(dnsproxy_server_if *sif) { return sif->counters; }

    static bool has_server(const dnsproxy_server_if *sif, int slot)
    {
        return dnsproxy_server_addr_check(sif->dnsServer[slot]) != 0;
    }

    // The same by a caller's own test of the slot.
    static bool passes(slot_check check, const dnsproxy_server_if *sif, int slot)
    {
        return check(sif->dnsServer[slot]) != 0;
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

    static const sockaddr_in6 &sender(const dns_datagram &d) { return d.sender.v6; }
    static int32_t &fd(dnsproxy_server_if *sif) { return sif->serverFd6; }
    static ipcom_tmo2 &tmo(dnsproxy_server_if *sif) { return sif->serverTmo6; }
    static line_counters &counters(dnsproxy_server_if *sif) { return sif->counters6; }

    // The address is tested as it is; an empty slot goes to the named check, which logs it.
    static bool has_server(const dnsproxy_server_if *sif, int slot)
    {
        return !IN6_IS_ADDR_UNSPECIFIED(&sif->dnsServer6[slot].sin6_addr) ||
               dnsproxy_check_dnsserver_v6(nullptr) != 0;
    }

    static bool passes(slot_check check, const dnsproxy_server_if *sif, int slot)
    {
        char text[DNSPROXY_ADDRESS_TEXT] = {};
        return check(inet_ntop(AF_INET6, &sif->dnsServer6[slot].sin6_addr, text, sizeof text - 1)) != 0;
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
        return memcmp(&sender.sin6_addr, &sif->dnsServer6[slot].sin6_addr, sizeof(in6_addr)) == 0;
    }
};

#endif
