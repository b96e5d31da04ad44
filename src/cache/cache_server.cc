#include "cache/cache_server.h"

#include <cstring>

#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "core/status.h"

namespace {

using slot_check = int (*)(uint64_t slot);

constexpr int no_slot = -1;
constexpr char op[] = "dnsproxy_server_if_getServerAddress";

// First usable slot from `begin` up to, not including, `end`.
int first_usable(const dnsproxy_server_if *sif, slot_check check, int begin, int end)
{
    for (int slot = begin; slot < end && slot < DNSPROXY_SERVER_SLOTS; slot++) {
        if (check(sif->dnsServer[slot]) != 0)
            return slot;
    }
    return no_slot;
}

void log_choice(const dnsproxy_server_if *sif, int slot)
{
    DNSPROXY_LOG(DEBUG, op, 0, "ifname:%s,The %d dns is ok,address:%x.", sif->ifname, slot,
                 static_cast<uint32_t>(sif->dnsServer[slot]));
}

// From the device's index upwards, which moves the index there.
int choose_upwards(dnsproxy_server_if *sif, slot_check check)
{
    const int slot = first_usable(sif, check, sif->dnsIndex, DNSPROXY_SERVER_SLOTS);
    if (slot != no_slot) {
        sif->dnsIndex = slot;
        log_choice(sif, slot);
    }
    return slot;
}

// Any slot of the device: upwards, else one below the index, which then stays.
int choose_any(dnsproxy_server_if *sif, slot_check check)
{
    int slot = choose_upwards(sif, check);
    if (slot == no_slot) {
        slot = first_usable(sif, check, 0, sif->dnsIndex);
        if (slot != no_slot)
            log_choice(sif, slot);
    }
    return slot;
}

struct choice {
    dnsproxy_server_if *sif; // nullptr: none
    int slot;
};

choice choose_from(dnsproxy_server_if *sif, slot_check check)
{
    for (; sif != nullptr; sif = ipcom_next(sif)) {
        const int slot = choose_any(sif, check);
        if (slot != no_slot) {
            dnsproxy_data.cacheServerSet = 1;
            memcpy(dnsproxy_data.cacheServerIfname, sif->ifname, sizeof sif->ifname);
            return {sif, slot};
        }
    }
    return {nullptr, no_slot};
}

choice choose_by_cache_server(slot_check check)
{
    if (dnsproxy_data.cacheServerSet != 1)
        return {nullptr, no_slot};
    dnsproxy_server_if *sif = dnsproxy_server_if_get(dnsproxy_data.cacheServerIfname);
    if (sif == nullptr) {
        DNSPROXY_LOG(ERROR, op, 0, "Can not find the cache server if, maybe it has been delete(ifname:%s).",
                     dnsproxy_data.cacheServerIfname);
        dnsproxy_data.cacheServerSet = 0;
        return {nullptr, no_slot};
    }
    if (sif->dnsIndex >= DNSPROXY_SERVER_SLOTS)
        return choose_from(ipcom_next(sif), check);
    const int slot = choose_upwards(sif, check);
    return {slot == no_slot ? nullptr : sif, slot};
}

} // namespace

void dnsproxy_server_if_resetCache()
{
    DNSPROXY_LOG(DEBUG, __func__, 0, "Reset cache server interface.");
    dnsproxy_data.cacheServerSet = 0;
}

const char *dnsproxy_server_if_getNext(const char *ifname)
{
    const dnsproxy_server_if *sif = dnsproxy_server_if_get(ifname);
    const dnsproxy_server_if *next = sif == nullptr ? nullptr : ipcom_next(sif);
    if (next == nullptr)
        next = ipcom_first<dnsproxy_server_if>(dnsproxy_data.serverIfList);
    return next == nullptr ? nullptr : next->ifname;
}

int dnsproxy_server_if_getServerAddress(slot_check check, dnsproxy_server_if **srv, uint64_t *addr,
                                        int32_t *index)
{
    choice chosen = choose_by_cache_server(check);
    if (chosen.sif == nullptr)
        chosen = choose_from(ipcom_first<dnsproxy_server_if>(dnsproxy_data.serverIfList), check);
    if (chosen.sif == nullptr)
        DNSPROXY_RETURN(op, DNSPROXY_ENOTFOUND);
    *srv = chosen.sif;
    *addr = chosen.sif->dnsServer[chosen.slot];
    *index = chosen.slot;
    DNSPROXY_LOG(DEBUG, op, 0, "Get ifname:%s address:%x index:%d.", chosen.sif->ifname,
                 static_cast<uint32_t>(*addr), *index);
    DNSPROXY_RETURN(op, *addr != 0 ? 0 : DNSPROXY_ENOTFOUND);
}
