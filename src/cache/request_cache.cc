#include "cache/request_cache.h"

#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "cache/cache_server.h"
#include "cache/noreply.h"
#include "cache/record_arena.h"
#include "cache/request_cache_families.h"
#include "core/log.h"
#include "core/status.h"
#include "iface/ifname.h"

namespace {

// The six table callbacks of a family. A key and its record keep the hash of the host: a query needs it for
// its look-up and its record, and the record to leave the table.
template <class Family> uint32_t hash_host(const void *key)
{
    return static_cast<const host_key<typename Family::host> *>(key)->hash;
}

template <class Family> uint32_t hash_host_of_record(const void *record)
{
    return static_cast<const typename Family::entry *>(record)->hostHash;
}

template <class Family> int cmp_host(const void *record, const void *key)
{
    const auto &e = *static_cast<const typename Family::entry *>(record);
    const auto &k = *static_cast<const host_key<typename Family::host> *>(key);
    return e.id == k.id && e.port == k.host.port && Family::same_address(e, k.host);
}

template <class Family> uint32_t hash_id_of_record(const void *record)
{
    return hash_field(static_cast<const typename Family::entry *>(record)->new_id, 0);
}

uint32_t hash_id(const void *key)
{
    return hash_field(*static_cast<const uint16_t *>(key), 0);
}

template <class Family> int cmp_id(const void *record, const void *key)
{
    return static_cast<const typename Family::entry *>(record)->new_id == *static_cast<const uint16_t *>(key);
}

template <class Family> record_arena memory = {.size = sizeof(typename Family::entry), .current = nullptr};

template <class Family> void delete_tables()
{
    for (ipcom_hash **table : {&Family::hosts(), &Family::ids()}) {
        if (*table != nullptr)
            ipcom_hash_delete(*table);
        *table = nullptr;
    }
}

template <class Family> int init()
{
    const int32_t buckets = dnsproxy_data.dnsproxyQueryMax * 4;
    ipcom_list_init(&Family::list());
    Family::hosts() =
        ipcom_hash_new_fixed(hash_host_of_record<Family>, hash_host<Family>, cmp_host<Family>, buckets);
    Family::ids() = ipcom_hash_new_fixed(hash_id_of_record<Family>, hash_id, cmp_id<Family>, buckets);
    if (Family::hosts() == nullptr || Family::ids() == nullptr) {
        delete_tables<Family>();
        DNSPROXY_LOG(ERROR, Family::op_init, DNSPROXY_ENOMEMORY, cache_msg_tables<Family>);
        DNSPROXY_RETURN(Family::op_init, DNSPROXY_ENOMEMORY);
    }
    DNSPROXY_RETURN(Family::op_init, 0);
}

template <class Family> void deinit()
{
    delete_tables<Family>();
    DNSPROXY_LOG(TRACE, Family::op_deinit, 0, "%s", "");
}

// Frees a record that is in no list. The tables and the timer skip one that they do not hold.
template <class Family> void discard(typename Family::entry *e)
{
    ipcom_hash_remove(Family::hosts(), e);
    ipcom_hash_remove(Family::ids(), e);
    ipcom_tmo2_cancel(&e->tmo);
    record_arena_give_back(&memory<Family>, e, e->place);
}

template <class Family>
int add(const host_key<typename Family::host> &key, uint16_t new_id, const char *ifname, int32_t dnsIndex)
{
    uint32_t place = 0;
    auto *e = static_cast<typename Family::entry *>(record_arena_take(&memory<Family>, &place));
    if (e == nullptr) {
        DNSPROXY_LOG(ERROR, Family::op_add, DNSPROXY_ENOMEMORY, cache_msg_memory<Family>);
        DNSPROXY_RETURN(Family::op_add, DNSPROXY_ENOMEMORY);
    }
    *e = {};
    e->place = place;
    e->timeout = dnsproxy_data.dnsproxyCacheTimeout;
    e->port = key.host.port;
    e->id = key.id;
    e->new_id = new_id;
    Family::set_address(e, key.host);
    e->hostHash = key.hash;
    ifname_copy(e->ifname, ifname);
    e->dnsIndex = dnsIndex;

    const int armed = ipcom_tmo2_request(dnsproxy_data.tmo2Head, &e->tmo, Family::on_expiry, e, e->timeout);
    if (armed < 0)
        DNSPROXY_LOG(ERROR, Family::op_add, armed, cache_msg_timer<Family>, e->ifname);
    const bool entered =
        armed >= 0 && ipcom_hash_add(Family::hosts(), e) == 0 && ipcom_hash_add(Family::ids(), e) == 0;
    if (armed >= 0 && !entered)
        DNSPROXY_LOG(ERROR, Family::op_add, DNSPROXY_ERESOURCE, cache_msg_hash<Family>);
    if (!entered) {
        discard<Family>(e);
        DNSPROXY_RETURN(Family::op_add, DNSPROXY_ERESOURCE);
    }
    ipcom_list_insert_last(&Family::list(), &e->link);
    DNSPROXY_RETURN(Family::op_add, armed);
}

template <class Family> host_key<typename Family::host> key_of(const typename Family::host &host, uint16_t id)
{
    return {host, id, hash_field(id, hash_field(host.port, Family::hash_address(host)))};
}

template <class Family> typename Family::entry *find(const host_key<typename Family::host> &key)
{
    return static_cast<typename Family::entry *>(ipcom_hash_get(Family::hosts(), &key));
}

template <class Family> typename Family::entry *find_by_id(uint16_t new_id)
{
    return static_cast<typename Family::entry *>(ipcom_hash_get(Family::ids(), &new_id));
}

// The cache server has run past its last slot: the next line takes its place.
template <class Family> void move_cache_server(const char *ifname)
{
    if (dnsproxy_data.cacheServerSet == 0 || !ifname_equal(dnsproxy_data.cacheServerIfname, ifname))
        return;
    const char *next = dnsproxy_server_if_getNext(ifname);
    if (next == nullptr)
        return;
    DNSPROXY_LOG(DEBUG, Family::op_timeout, 0, cache_msg_moved<Family>, ifname, next);
    memmove(dnsproxy_data.cacheServerIfname, next, strlen(next) + 1);
}

// No reply came from the slot that the index stands on: on to the next configured one, or back to slot 0.
template <class Family> void move_index(dnsproxy_server_if *sif)
{
    while (++sif->dnsIndex < DNSPROXY_SERVER_SLOTS) {
        if (Family::has_server(sif, sif->dnsIndex))
            return;
    }
    sif->dnsIndex = 0;
    move_cache_server<Family>(sif->ifname);
}

// A line that was deleted and added again since has not sent the query.
template <class Family> void count_end(dnsproxy_server_if *sif, const typename Family::entry *e)
{
    if (sif == nullptr || entry_sent_at(*e) < sif->made_at)
        return;
    line_counters &line = Family::counters(sif);
    count((e->flags & DNSPROXY_ENTRY_ANSWERED) != 0 ? &line.answered : &line.expired);
}

template <class Family> int expire(typename Family::entry *e)
{
    dnsproxy_server_if *sif = dnsproxy_server_if_get(e->ifname);
    if (sif == nullptr)
        DNSPROXY_LOG(NOTICE, Family::op_timeout, 0, cache_msg_gone<Family>, e->ifname);
    else if ((e->flags & DNSPROXY_ENTRY_ANSWERED) != 0)
        sif->dnsIndex = e->dnsIndex;
    else if (sif->dnsIndex == e->dnsIndex)
        move_index<Family>(sif);
    count_end<Family>(sif, e);
    ipcom_list_remove(&e->link);
    dnsproxy_noreply_count();
    discard<Family>(e);
    DNSPROXY_RETURN(Family::op_timeout, 0);
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

host_key<host_v4> request_cache_key(const host_v4 &host, uint16_t id)
{
    return key_of<cache_v4>(host, id);
}

host_key<host_v6> request_cache_key(const host_v6 &host, uint16_t id)
{
    return key_of<cache_v6>(host, id);
}

int request_cache_add(const host_key<host_v4> &key, uint16_t new_id, const char *ifname, int32_t dnsIndex)
{
    return add<cache_v4>(key, new_id, ifname, dnsIndex);
}

int request_cache_add(const host_key<host_v6> &key, uint16_t new_id, const char *ifname, int32_t dnsIndex)
{
    return add<cache_v6>(key, new_id, ifname, dnsIndex);
}

dnsproxy_cache_entry *request_cache_find(const host_key<host_v4> &key)
{
    return find<cache_v4>(key);
}

dnsproxy_cache_entry_v6 *request_cache_find(const host_key<host_v6> &key)
{
    return find<cache_v6>(key);
}

int dnsproxy_add_entry(uint64_t from, uint16_t port, uint16_t id, uint16_t new_id, const char *ifname,
                       int32_t dnsIndex)
{
    return request_cache_add(key_of<cache_v4>({from, port}, id), new_id, ifname, dnsIndex);
}

int dnsproxy_add_entry_v6(uint64_t from, const sockaddr_in6 *client, uint16_t port, uint16_t id,
                          uint16_t new_id, const char *ifname, int32_t dnsIndex)
{
    return request_cache_add(key_of<cache_v6>({from, client->sin6_addr, port}, id), new_id, ifname, dnsIndex);
}

dnsproxy_cache_entry *dnsproxy_entry_find(uint64_t from, uint16_t port, uint16_t id)
{
    return request_cache_find(key_of<cache_v4>({from, port}, id));
}

dnsproxy_cache_entry_v6 *dnsproxy_entry_find_v6(uint64_t from, const sockaddr_in6 *client, uint16_t port,
                                                uint16_t id)
{
    return request_cache_find(key_of<cache_v6>({from, client->sin6_addr, port}, id));
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
    fprintf(out, "***Show all dns request cache entry(sizeof:%d)***\n", dnsproxy_data.cacheList.size);
    for (auto *e = ipcom_first<dnsproxy_cache_entry>(dnsproxy_data.cacheList); e != nullptr;
         e = ipcom_next(e)) {
        fprintf(out, "From:%x port:%d id:%d.\n", static_cast<uint32_t>(e->from), e->port, e->id);
        fprintf(out, "New id:%d.\n", e->new_id);
        fprintf(out, "Out interface name:%s dnsIndex:%d.\n", e->ifname, e->dnsIndex);
        fprintf(out, "Falgs:%x.\n", static_cast<uint32_t>(e->flags));
        fprintf(out, "\n\n");
    }
    fprintf(out, "End\n\n");
    dump.write();
    return 0;
}
