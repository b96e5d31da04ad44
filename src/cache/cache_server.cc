#include "cache/cache_server.h"

#include <cstring>

#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "core/status.h"
#include "iface/server_slot.h"

namespace {

using slot_check = int (*)(uint64_t slot);

constexpr char op[] = "dnsproxy_server_if_getServerAddress";

struct choice {
    dnsproxy_server_if *sif; // nullptr: none
    int slot;
};

constexpr choice none = {.sif = nullptr, .slot = DNSPROXY_NO_SLOT};

// A choice from the line's index upwards moves the index there; one below it does not.
choice choose(dnsproxy_server_if *sif, int slot)
{
    if (slot == DNSPROXY_NO_SLOT)
        return none;
    if (slot > sif->dnsIndex)
        sif->dnsIndex = slot;
    DNSPROXY_LOG(DEBUG, op, 0, "ifname:%s,The %d dns is ok,address:%x.", sif->ifname, slot,
                 static_cast<uint32_t>(sif->dnsServer[slot]));
    return {sif, slot};
}

choice choose_from(dnsproxy_server_if *sif, slot_check check)
{
    for (; sif != nullptr; sif = ipcom_next(sif)) {
        const auto usable = [&](int slot) { return check(sif->dnsServer[slot]) != 0; };
        const choice chosen = choose(sif, server_slot_from_index(sif, usable));
        if (chosen.sif != nullptr) {
            dnsproxy_data.cacheServerSet = 1;
            memcpy(dnsproxy_data.cacheServerIfname, sif->ifname, sizeof sif->ifname);
            return chosen;
        }
    }
    return none;
}

choice choose_by_cache_server(slot_check check)
{
    if (dnsproxy_data.cacheServerSet != 1)
        return none;
    dnsproxy_server_if *sif = dnsproxy_server_if_get(dnsproxy_data.cacheServerIfname);
    if (sif == nullptr) {
        DNSPROXY_LOG(ERROR, op, 0, "Can not find the cache server if, maybe it has been delete(ifname:%s).",
                     dnsproxy_data.cacheServerIfname);
        dnsproxy_data.cacheServerSet = 0;
        return none;
    }
    if (sif->dnsIndex >= DNSPROXY_SERVER_SLOTS)
        return choose_from(ipcom_next(sif), check);
    const auto usable = [&](int slot) { return check(sif->dnsServer[slot]) != 0; };
    return choose(sif, server_slot_first(sif->dnsIndex, DNSPROXY_SERVER_SLOTS, usable));
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
