#include "iface/server_if.h"

#include <cstdlib>
#include <cstring>

#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "core/status.h"
#include "iface/if_show.h"
#include "iface/ifname.h"
#include "iface/upstream_socket.h"
#include "platform/mutex_guard.h"

namespace {

constexpr uint32_t socket_idle_ms = 60000;

uint32_t hash_of_record(const void *record)
{
    return ifname_hash(static_cast<const dnsproxy_server_if *>(record)->ifname);
}

int has_name(const void *record, const void *key)
{
    const auto *sif = static_cast<const dnsproxy_server_if *>(record);
    return ifname_equal(sif->ifname, static_cast<const char *>(key)) ? 1 : 0;
}

bool is_vpn_device(const char *ifname)
{
    return strncmp(ifname, "lt-", 3) == 0 || strncmp(ifname, "pt-", 3) == 0;
}

bool enter_record(dnsproxy_server_if *sif)
{
    const mutex_guard lock(&dnsproxy_data.serverIfLock);
    if (ipcom_hash_add(dnsproxy_data.serverIfHash, sif) != 0)
        return false;
    ipcom_list_insert_last(&dnsproxy_data.serverIfList, &sif->link);
    return true;
}

void remove_record(dnsproxy_server_if *sif)
{
    upstream_socket_close(&sif->serverFd, &sif->serverTmo);
    upstream_socket_close(&sif->serverFd6, &sif->serverTmo6);
    {
        const mutex_guard lock(&dnsproxy_data.serverIfLock);
        ipcom_hash_remove(dnsproxy_data.serverIfHash, sif);
        ipcom_list_remove(&sif->link);
    }
    free(sif);
}

int remove_normal(void *record, void *)
{
    return dnsproxy_server_if_del_normal(static_cast<dnsproxy_server_if *>(record));
}

// False: there is no such device.
bool set_link_state(const char *ifname, const uint64_t *is_down)
{
    const mutex_guard lock(&dnsproxy_data.serverIfLock);
    dnsproxy_server_if *sif = dnsproxy_server_if_get(ifname);
    if (sif == nullptr)
        return false;
    if (is_down != nullptr)
        __atomic_store_n(&sif->is_down, *is_down, __ATOMIC_RELAXED);
    const auto *up = ipcom_first<dnsproxy_server_if>(dnsproxy_data.serverIfList);
    while (up != nullptr && server_if_is_down(up))
        up = ipcom_next(up);
    __atomic_store_n(&dnsproxy_data.allServerIfDown, up == nullptr ? 1 : 0, __ATOMIC_RELAXED);
    return true;
}

// A server that is replaced leaves its numbers behind. Under the lock: the bus thread reads servers.
void set_slot(dnsproxy_server_if *sif, int slot, const uint64_t *address)
{
    if (address == nullptr || *address == 0 || *address == sif->dnsServer[slot])
        return;
    sif->dnsServer[slot] = *address;
    count_replaced(&sif->counters, slot);
}

void set_slot_v6(dnsproxy_server_if *sif, int slot, const sockaddr_in6 *address)
{
    if (address == nullptr)
        return;
    if (!IN6_ARE_ADDR_EQUAL(&address->sin6_addr, &sif->dnsServer6[slot].sin6_addr))
        count_replaced(&sif->counters6, slot);
    sif->dnsServer6[slot] = *address;
}

void set_servers_v6(dnsproxy_server_if *sif, const sockaddr_in6 *dns6, const sockaddr_in6 *dns6_2)
{
    const mutex_guard lock(&dnsproxy_data.serverIfLock);
    set_slot_v6(sif, 0, dns6);
    set_slot_v6(sif, 1, dns6_2);
}

void set_servers(dnsproxy_server_if *sif, const uint64_t *dns, const uint64_t *dns2)
{
    const mutex_guard lock(&dnsproxy_data.serverIfLock);
    set_slot(sif, 0, dns);
    set_slot(sif, 1, dns2);
}

} // namespace

int server_if_table_init()
{
    dnsproxy_data.serverIfHash = ipcom_hash_new(hash_of_record, ifname_hash, has_name);
    return dnsproxy_data.serverIfHash == nullptr ? DNSPROXY_ERESOURCE : 0;
}

void server_if_table_deinit()
{
    if (dnsproxy_data.serverIfHash != nullptr)
        ipcom_hash_delete(dnsproxy_data.serverIfHash);
    dnsproxy_data.serverIfHash = nullptr;
}

int dnsproxy_server_if_new(const char *ifname, uint64_t dns, uint64_t dns2, const sockaddr_in6 *dns6,
                           const sockaddr_in6 *dns6_2, int noV4, int noV6)
{
    if (strcmp(ifname, "lo") == 0) {
        DNSPROXY_LOG(TRACE, __func__, 0, "Skip loopback interface for dns server!");
        DNSPROXY_RETURN(__func__, 0);
    }
    if (!ifname_fits(ifname)) {
        DNSPROXY_LOG(ERROR, __func__, DNSPROXY_EINVALID, "The interface name is too long(ifname:%s).",
                     ifname);
        DNSPROXY_RETURN(__func__, DNSPROXY_EINVALID);
    }
    dnsproxy_server_if *sif = dnsproxy_server_if_get(ifname);
    if (sif != nullptr) {
        if (noV6 != 1 && dns6 != nullptr && dns6_2 != nullptr) {
            set_servers_v6(sif, dns6, dns6_2);
            upstream_socket_close(&sif->serverFd6, &sif->serverTmo6);
        }
        DNSPROXY_LOG(ERROR, __func__, DNSPROXY_EEXISTS, "The server if has already exist(ifname:%s).",
                     ifname);
        DNSPROXY_RETURN(__func__, DNSPROXY_EEXISTS);
    }
    sif = static_cast<dnsproxy_server_if *>(calloc(1, sizeof(dnsproxy_server_if)));
    if (sif == nullptr) {
        DNSPROXY_LOG(ERROR, __func__, DNSPROXY_ENOMEMORY, "No memory to create server if(ifname:%s).",
                     ifname);
        DNSPROXY_RETURN(__func__, DNSPROXY_ENOMEMORY);
    }
    memcpy(sif->ifname, ifname, strlen(ifname) + 1);
    if (noV4 != 1) {
        sif->dnsServer[0] = dns;
        sif->dnsServer[1] = dns2;
    }
    if (noV6 != 1) {
        sif->dnsServer6[0] = *dns6;
        sif->dnsServer6[1] = *dns6_2;
    }
    sif->serverFd = -1;
    sif->serverFd6 = -1;
    sif->sockTimeout = socket_idle_ms;
    sif->made_at = ipcom_tmo2_clock();
    if (!enter_record(sif)) {
        DNSPROXY_LOG(ERROR, __func__, DNSPROXY_ENOMEMORY, "No memory to create server if(ifname:%s).",
                     ifname);
        free(sif);
        DNSPROXY_RETURN(__func__, DNSPROXY_ENOMEMORY);
    }
    DNSPROXY_RETURN(__func__, 0);
}

int dnsproxy_server_if_set(const char *ifname, const uint64_t *dns, const uint64_t *dns2,
                           const sockaddr_in6 *dns6, const sockaddr_in6 *dns6_2, int noV4, int noV6)
{
    dnsproxy_server_if *sif = dnsproxy_server_if_get(ifname);
    if (sif == nullptr) {
        DNSPROXY_LOG(ERROR, __func__, DNSPROXY_ENOTFOUND, "Can not find the server if(ifname:%s).", ifname);
        DNSPROXY_RETURN(__func__, DNSPROXY_ENOTFOUND);
    }
    if (noV4 != 1)
        set_servers(sif, dns, dns2);
    if (noV6 != 1)
        set_servers_v6(sif, dns6, dns6_2);
    DNSPROXY_RETURN(__func__, 0);
}

int dnsproxy_server_if_destroy(const char *ifname)
{
    dnsproxy_server_if *sif = dnsproxy_server_if_get(ifname);
    if (sif == nullptr) {
        DNSPROXY_LOG(NOTICE, __func__, DNSPROXY_ENOTFOUND, "Fail to find the server if(ifname:%s).", ifname);
        DNSPROXY_RETURN(__func__, DNSPROXY_ENOTFOUND);
    }
    remove_record(sif);
    DNSPROXY_RETURN(__func__, 0);
}

int dnsproxy_server_if_del_normal(dnsproxy_server_if *sif)
{
    if (sif == nullptr) {
        DNSPROXY_LOG(NOTICE, __func__, DNSPROXY_EINVALID, "Invalid parms");
        DNSPROXY_RETURN(__func__, DNSPROXY_EINVALID);
    }
    if (is_vpn_device(sif->ifname))
        DNSPROXY_LOG(NOTICE, __func__, 0, "VPN device,do not delete it!");
    else
        remove_record(sif);
    DNSPROXY_RETURN(__func__, 0);
}

int dnsproxy_server_if_delAll()
{
    DNSPROXY_LOG(NOTICE, __func__, 0, "dnsproxy_server_if_delAll");
    dnsproxy_if_show();
    ipcom_hash_for_each(dnsproxy_data.serverIfHash, remove_normal, nullptr);
    DNSPROXY_RETURN(__func__, 0);
}

int dnsproxy_server_if_state_up(const char *ifname, const uint64_t *is_down)
{
    if (!set_link_state(ifname, is_down)) {
        DNSPROXY_LOG(DEBUG, __func__, DNSPROXY_ENOTFOUND, "Can not find the server if(ifname:%s).", ifname);
        DNSPROXY_RETURN(__func__, DNSPROXY_ENOTFOUND);
    }
    DNSPROXY_RETURN(__func__, 0);
}

dnsproxy_server_if *dnsproxy_server_if_get(const char *ifname)
{
    return static_cast<dnsproxy_server_if *>(ipcom_hash_get(dnsproxy_data.serverIfHash, ifname));
}

void dnsproxy_server_if_make_last(dnsproxy_server_if *sif)
{
    if (ipcom_next(sif) == nullptr)
        return;
    const mutex_guard lock(&dnsproxy_data.serverIfLock);
    ipcom_list_remove(&sif->link);
    ipcom_list_insert_before(&dnsproxy_data.serverIfList, &sif->link);
}

int dnsproxy_server_addr_check(uint64_t slot)
{
    return slot != 0 ? 1 : 0;
}

int dnsproxy_check_dnsserver_v6(const char *text)
{
    if (text != nullptr && strcmp(text, "::") != 0)
        return 1;
    DNSPROXY_LOG(ERROR, __func__, 0, "IPv6 DNS server is empty!\n");
    return 0;
}
