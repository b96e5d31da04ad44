// The differences between the IPv4 and the IPv6 request cache.
#ifndef CACHE_REQUEST_CACHE_FAMILIES_H
#define CACHE_REQUEST_CACHE_FAMILIES_H

#include <cstring>

#include "cache/host.h"
#include "cache/request_cache.h"
#include "core/dnsproxy_data.h"
#include "iface/family.h"

struct cache_v4;
struct cache_v6;

template <class Family> constexpr char cache_msg_tables[] = "Fail to create cache tbl.";
template <> inline constexpr char cache_msg_tables<cache_v6>[] = "Fail to create cache tbl_v6";

template <class Family> constexpr char cache_msg_memory[] = "no memery for new entry.";
template <> inline constexpr char cache_msg_memory<cache_v6>[] = "no memery for IPv6 new entry.";

template <class Family> constexpr char cache_msg_timer[] = "Fail to set tmo2(ifname:%s).";
template <> inline constexpr char cache_msg_timer<cache_v6>[] = "Fail to set IPv6 tmo2(ifname:%s).";

template <class Family> constexpr char cache_msg_hash[] = "ipcom_hash_add hash_v4 failed, goto cleanup.";
template <> inline constexpr char cache_msg_hash<cache_v6>[] = "ipcom_hash_add hash_v6 failed, goto cleanup.";

template <class Family> constexpr char cache_msg_gone[] = "The entry server if has been delete(ifname:%s).";
template <>
inline constexpr char cache_msg_gone<cache_v6>[] = "The IPv6 entry server if has been delete(ifname:%s).";

template <class Family>
constexpr char cache_msg_moved[] = "Update dnsproxy cache server if(oldifname:%s newifname:%s).";
template <>
inline constexpr char cache_msg_moved<cache_v6>[] =
    "Update IPv6 dnsproxy cache server if(oldifname:%s newifname:%s).";

template <class Field> uint32_t hash_field(const Field &field, uint32_t initial)
{
    return ipcom_hash_update(&field, sizeof field, initial);
}

struct cache_v4 : ipv4 {
    using entry = dnsproxy_cache_entry;
    using host = host_v4;

    static constexpr char op_init[] = "dnsproxy_cache_init";
    static constexpr char op_deinit[] = "dnsproxy_cache_deinit";
    static constexpr char op_add[] = "dnsproxy_add_entry";
    static constexpr char op_timeout[] = "dnsproxy_entry_timeout";
    static constexpr auto on_expiry = dnsproxy_entry_timeout;

    static ipcom_list &list() { return dnsproxy_data.cacheList; }
    static ipcom_hash *&hosts() { return dnsproxy_data.cacheHash; }
    static ipcom_hash *&ids() { return dnsproxy_data.cacheIdHash; }

    static void set_address(entry *e, const host &h) { e->from = h.from; }
    static uint32_t hash_address(const host &h) { return hash_field(h.from, 0); }
    static bool same_address(const entry &e, const host &h) { return e.from == h.from; }
};

struct cache_v6 : ipv6 {
    using entry = dnsproxy_cache_entry_v6;
    using host = host_v6;

    static constexpr char op_init[] = "dnsproxy_cache_init_v6";
    static constexpr char op_deinit[] = "dnsproxy_cache_deinit_v6";
    static constexpr char op_add[] = "dnsproxy_add_entry_v6";
    static constexpr char op_timeout[] = "dnsproxy_entry_timeout_v6";
    static constexpr auto on_expiry = dnsproxy_entry_timeout_v6;

    static ipcom_list &list() { return dnsproxy_data.cacheList6; }
    static ipcom_hash *&hosts() { return dnsproxy_data.cacheHash6; }
    static ipcom_hash *&ids() { return dnsproxy_data.cacheIdHash6; }

    static void set_address(entry *e, const host &h)
    {
        e->from = h.from;
        e->from6 = h.from6;
    }
    static uint32_t hash_address(const host &h) { return hash_field(h.from6, hash_field(h.from, 0)); }
    static bool same_address(const entry &e, const host &h)
    {
        return e.from == h.from && memcmp(&e.from6, &h.from6, sizeof h.from6) == 0;
    }
};

#endif
