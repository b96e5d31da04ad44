#include "cache/request_cache.h"

#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "cache/cache_server.h"
#include "cache/noreply.h"
#include "cache/record_arena.h"
#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "core/status.h"
#include "iface/family.h"
#include "iface/ifname.h"

namespace {

// Search keys of the host tables, and the one way to hash their fields and those of a record.
struct host_key {
    uint64_t from;
    uint16_t port;
    uint16_t id;
};

struct host_key_v6 {
    uint64_t from;
    in6_addr from6;
    uint16_t port;
    uint16_t id;
};

template <class T> uint32_t hash_field(const T &field, uint32_t initial)
{
    return ipcom_hash_update(&field, sizeof field, initial);
}

// The differences between the two caches.
struct cache_v4 : ipv4 {
    using entry = dnsproxy_cache_entry;
    using key = host_key;

    static constexpr auto list = &dnsproxy_data::cacheList;
    static constexpr auto hosts = &dnsproxy_data::cacheHash;
    static constexpr auto ids = &dnsproxy_data::cacheIdHash;

    static constexpr char op_init[] = "dnsproxy_cache_init";
    static constexpr char op_deinit[] = "dnsproxy_cache_deinit";
    static constexpr char op_add[] = "dnsproxy_add_entry";
    static constexpr char op_timeout[] = "dnsproxy_entry_timeout";
    static constexpr char msg_tables[] = "Fail to create cache tbl.";
    static constexpr char msg_memory[] = "no memery for new entry.";
    static constexpr char msg_timer[] = "Fail to set tmo2(ifname:%s).";
    static constexpr char msg_hash[] = "ipcom_hash_add hash_v4 failed, goto cleanup.";
    static constexpr char msg_gone[] = "The entry server if has been delete(ifname:%s).";
    static constexpr char msg_moved[] = "Update dnsproxy cache server if(oldifname:%s newifname:%s).";

    static constexpr auto on_expiry = dnsproxy_entry_timeout;
    static constexpr auto records = &dnsproxy_data::recordCounters;

    static void set_host(entry *e, const key &k) { e->from = k.from; }
    static uint32_t hash_address(const key &k) { return hash_field(k.from, 0); }
    static bool same_address(const entry &e, const key &k) { return e.from == k.from; }
};

struct cache_v6 : ipv6 {
    using entry = dnsproxy_cache_entry_v6;
    using key = host_key_v6;

    static constexpr auto list = &dnsproxy_data::cacheList6;
    static constexpr auto hosts = &dnsproxy_data::cacheHash6;
    static constexpr auto ids = &dnsproxy_data::cacheIdHash6;

    static constexpr char op_init[] = "dnsproxy_cache_init_v6";
    static constexpr char op_deinit[] = "dnsproxy_cache_deinit_v6";
    static constexpr char op_add[] = "dnsproxy_add_entry_v6";
    static constexpr char op_timeout[] = "dnsproxy_entry_timeout_v6";
    static constexpr char msg_tables[] = "Fail to create cache tbl_v6";
    static constexpr char msg_memory[] = "no memery for IPv6 new entry.";
    static constexpr char msg_timer[] = "Fail to set IPv6 tmo2(ifname:%s).";
    static constexpr char msg_hash[] = "ipcom_hash_add hash_v6 failed, goto cleanup.";
    static constexpr char msg_gone[] = "The IPv6 entry server if has been delete(ifname:%s).";
    static constexpr char msg_moved[] = "Update IPv6 dnsproxy cache server if(oldifname:%s newifname:%s).";

    static constexpr auto on_expiry = dnsproxy_entry_timeout_v6;
    static constexpr auto records = &dnsproxy_data::recordCounters6;

    static void set_host(entry *e, const key &k)
    {
        e->from = k.from;
        e->from6 = k.from6;
    }
    static uint32_t hash_address(const key &k) { return hash_field(k.from6, hash_field(k.from, 0)); }
    static bool same_address(const entry &e, const key &k)
    {
        return e.from == k.from && memcmp(&e.from6, &k.from6, sizeof k.from6) == 0;
    }
};

// The six table callbacks of a family. A record keeps the hash of its host's key.
template <class C> uint32_t hash_host(const void *key)
{
    const auto &k = *static_cast<const typename C::key *>(key);
    return hash_field(k.id, hash_field(k.port, C::hash_address(k)));
}

template <class C> uint32_t hash_host_of_record(const void *record)
{
    return static_cast<const typename C::entry *>(record)->hostHash;
}

template <class C> int cmp_host(const void *record, const void *key)
{
    const auto &e = *static_cast<const typename C::entry *>(record);
    const auto &k = *static_cast<const typename C::key *>(key);
    return e.id == k.id && e.port == k.port && C::same_address(e, k);
}

template <class C> uint32_t hash_id_of_record(const void *record)
{
    return hash_field(static_cast<const typename C::entry *>(record)->new_id, 0);
}

uint32_t hash_id(const void *key)
{
    return hash_field(*static_cast<const uint16_t *>(key), 0);
}

template <class C> int cmp_id(const void *record, const void *key)
{
    return static_cast<const typename C::entry *>(record)->new_id == *static_cast<const uint16_t *>(key);
}

template <class C> record_arena memory = {.size = sizeof(typename C::entry), .current = nullptr};

template <class C> void delete_tables()
{
    for (ipcom_hash **table : {&(dnsproxy_data.*C::hosts), &(dnsproxy_data.*C::ids)}) {
        if (*table != nullptr)
            ipcom_hash_delete(*table);
        *table = nullptr;
    }
}

template <class C> int init()
{
    const int32_t buckets = dnsproxy_data.dnsproxyQueryMax * 4;
    ipcom_list_init(&(dnsproxy_data.*C::list));
    dnsproxy_data.*C::hosts =
        ipcom_hash_new_fixed(hash_host_of_record<C>, hash_host<C>, cmp_host<C>, buckets);
    dnsproxy_data.*C::ids = ipcom_hash_new_fixed(hash_id_of_record<C>, hash_id, cmp_id<C>, buckets);
    if (dnsproxy_data.*C::hosts == nullptr || dnsproxy_data.*C::ids == nullptr) {
        delete_tables<C>();
        DNSPROXY_LOG(ERROR, C::op_init, DNSPROXY_ENOMEMORY, C::msg_tables);
        DNSPROXY_RETURN(C::op_init, DNSPROXY_ENOMEMORY);
    }
    DNSPROXY_RETURN(C::op_init, 0);
}

template <class C> void deinit()
{
    delete_tables<C>();
    record_arena_clear(&memory<C>);
    DNSPROXY_LOG(TRACE, C::op_deinit, 0, "%s", "");
}

template <class C> int add(const typename C::key &host, uint16_t new_id, const char *ifname, int32_t dnsIndex)
{
    auto *e = static_cast<typename C::entry *>(record_arena_take(&memory<C>));
    if (e == nullptr) {
        DNSPROXY_LOG(ERROR, C::op_add, DNSPROXY_ENOMEMORY, C::msg_memory);
        DNSPROXY_RETURN(C::op_add, DNSPROXY_ENOMEMORY);
    }
    *e = {};
    e->timeout = dnsproxy_data.dnsproxyCacheTimeout;
    e->port = host.port;
    e->id = host.id;
    e->new_id = new_id;
    C::set_host(e, host);
    e->hostHash = hash_host<C>(&host);
    ifname_copy(e->ifname, ifname);
    e->dnsIndex = dnsIndex;

    const int armed = ipcom_tmo2_request(dnsproxy_data.tmo2Head, &e->tmo, C::on_expiry, e, e->timeout);
    if (armed < 0) {
        DNSPROXY_LOG(ERROR, C::op_add, armed, C::msg_timer, e->ifname);
        record_arena_give_back(&memory<C>, e);
        DNSPROXY_RETURN(C::op_add, DNSPROXY_ERESOURCE);
    }
    if (ipcom_hash_add(dnsproxy_data.*C::hosts, e) != 0) {
        DNSPROXY_LOG(ERROR, C::op_add, DNSPROXY_ERESOURCE, C::msg_hash);
        ipcom_tmo2_cancel(&e->tmo);
        record_arena_give_back(&memory<C>, e);
        DNSPROXY_RETURN(C::op_add, DNSPROXY_ERESOURCE);
    }
    if (ipcom_hash_add(dnsproxy_data.*C::ids, e) != 0) {
        DNSPROXY_LOG(ERROR, C::op_add, DNSPROXY_ERESOURCE, C::msg_hash);
        (void)ipcom_hash_remove(dnsproxy_data.*C::hosts, e);
        ipcom_tmo2_cancel(&e->tmo);
        record_arena_give_back(&memory<C>, e);
        DNSPROXY_RETURN(C::op_add, DNSPROXY_ERESOURCE);
    }
    ipcom_list_insert_last(&(dnsproxy_data.*C::list), &e->link);
    count(&(dnsproxy_data.*C::records).made);
    DNSPROXY_RETURN(C::op_add, armed);
}

template <class C> typename C::entry *find(const typename C::key &host)
{
    return static_cast<typename C::entry *>(ipcom_hash_get(dnsproxy_data.*C::hosts, &host));
}

template <class C> typename C::entry *find_by_id(uint16_t new_id)
{
    return static_cast<typename C::entry *>(ipcom_hash_get(dnsproxy_data.*C::ids, &new_id));
}

// The cache server has run past its last slot: the next device takes its place.
template <class C> void move_cache_server(const char *ifname)
{
    if (dnsproxy_data.cacheServerSet == 0 || !ifname_equal(dnsproxy_data.cacheServerIfname, ifname))
        return;
    const char *next = dnsproxy_server_if_getNext(ifname);
    if (next == nullptr)
        return;
    DNSPROXY_LOG(DEBUG, C::op_timeout, 0, C::msg_moved, ifname, next);
    memmove(dnsproxy_data.cacheServerIfname, next, strlen(next) + 1);
}

// No reply came from the slot that the index stands on: on to the next configured one, or back to slot 0.
template <class C> void move_index(dnsproxy_server_if *sif)
{
    while (++sif->dnsIndex < DNSPROXY_SERVER_SLOTS) {
        if (C::has_server(sif, sif->dnsIndex))
            return;
    }
    sif->dnsIndex = 0;
    move_cache_server<C>(sif->ifname);
}

// A line that was deleted and added again since has not sent the query.
template <class C> void count_end(dnsproxy_server_if *sif, const typename C::entry *e)
{
    count(&(dnsproxy_data.*C::records).ended);
    if (sif == nullptr || entry_sent_at(*e) < sif->made_at)
        return;
    line_counters &line = sif->*C::counters;
    count((e->flags & DNSPROXY_ENTRY_ANSWERED) != 0 ? &line.answered : &line.expired);
}

template <class C> int expire(typename C::entry *e)
{
    dnsproxy_server_if *sif = dnsproxy_server_if_get(e->ifname);
    if (sif == nullptr)
        DNSPROXY_LOG(NOTICE, C::op_timeout, 0, C::msg_gone, e->ifname);
    else if ((e->flags & DNSPROXY_ENTRY_ANSWERED) != 0)
        sif->dnsIndex = e->dnsIndex;
    else if (sif->dnsIndex == e->dnsIndex)
        move_index<C>(sif);
    count_end<C>(sif, e);
    ipcom_list_remove(&e->link);
    dnsproxy_noreply_count();
    (void)ipcom_hash_remove(dnsproxy_data.*C::hosts, e);
    (void)ipcom_hash_remove(dnsproxy_data.*C::ids, e);
    record_arena_give_back(&memory<C>, e);
    DNSPROXY_RETURN(C::op_timeout, 0);
}

} // namespace

int dnsproxy_cache_init()
{
    return init<cache_v4>();
}

int dnsproxy_cache_init_v6()
{
    return init<cache_v6>();
}

void dnsproxy_cache_deinit()
{
    deinit<cache_v4>();
}

void dnsproxy_cache_deinit_v6()
{
    deinit<cache_v6>();
}

int dnsproxy_add_entry(uint64_t from, uint16_t port, uint16_t id, uint16_t new_id, const char *ifname,
                       int32_t dnsIndex)
{
    return add<cache_v4>({.from = from, .port = port, .id = id}, new_id, ifname, dnsIndex);
}

int dnsproxy_add_entry_v6(uint64_t from, const sockaddr_in6 *client, uint16_t port, uint16_t id,
                          uint16_t new_id, const char *ifname, int32_t dnsIndex)
{
    return add<cache_v6>({.from = from, .from6 = client->sin6_addr, .port = port, .id = id}, new_id, ifname,
                         dnsIndex);
}

dnsproxy_cache_entry *dnsproxy_entry_find(uint64_t from, uint16_t port, uint16_t id)
{
    return find<cache_v4>({.from = from, .port = port, .id = id});
}

dnsproxy_cache_entry_v6 *dnsproxy_entry_find_v6(uint64_t from, const sockaddr_in6 *client, uint16_t port,
                                                uint16_t id)
{
    return find<cache_v6>({.from = from, .from6 = client->sin6_addr, .port = port, .id = id});
}

dnsproxy_cache_entry *dnsproxy_entry_findById(uint16_t new_id)
{
    return find_by_id<cache_v4>(new_id);
}

dnsproxy_cache_entry_v6 *dnsproxy_entry_findById_v6(uint16_t new_id)
{
    return find_by_id<cache_v6>(new_id);
}

int dnsproxy_entry_timeout(void *record)
{
    return expire<cache_v4>(static_cast<dnsproxy_cache_entry *>(record));
}

int dnsproxy_entry_timeout_v6(void *record)
{
    return expire<cache_v6>(static_cast<dnsproxy_cache_entry_v6 *>(record));
}

int dnsproxy_cache_show()
{
    dnsproxy_dump dump;
    FILE *out = dump.file();
    if (out == nullptr)
        return 0;
    (void)fprintf(out, "***Show all dns request cache entry(sizeof:%d)***\n", dnsproxy_data.cacheList.size);
    for (auto *e = ipcom_first<dnsproxy_cache_entry>(dnsproxy_data.cacheList); e != nullptr;
         e = ipcom_next(e)) {
        (void)fprintf(out, "From:%x port:%d id:%d.\n", static_cast<uint32_t>(e->from), e->port, e->id);
        (void)fprintf(out, "New id:%d.\n", e->new_id);
        (void)fprintf(out, "Out interface name:%s dnsIndex:%d.\n", e->ifname, e->dnsIndex);
        (void)fprintf(out, "Falgs:%x.\n", static_cast<uint32_t>(e->flags));
        (void)fprintf(out, "\n\n");
    }
    (void)fprintf(out, "End\n\n");
    dump.write();
    return 0;
}
