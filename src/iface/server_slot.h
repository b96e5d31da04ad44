// The order in which the server slots of a line are tried.
#ifndef IFACE_SERVER_SLOT_H
#define IFACE_SERVER_SLOT_H

#include "iface/server_record.h"

constexpr int DNSPROXY_NO_SLOT = -1;

// The first slot from `begin` up to, not including, `end` that `usable(slot)` accepts, or DNSPROXY_NO_SLOT.
template <class Usable> int server_slot_first(int begin, int end, const Usable &usable)
{
    for (int slot = begin; slot < end && slot < DNSPROXY_SERVER_SLOTS; slot++) {
        if (usable(slot))
            return slot;
    }
    return DNSPROXY_NO_SLOT;
}

// From the line's index upwards, else below it.
template <class Usable> int server_slot_from_index(const dnsproxy_server_if *sif, const Usable &usable)
{
    const int slot = server_slot_first(sif->dnsIndex, DNSPROXY_SERVER_SLOTS, usable);
    return slot != DNSPROXY_NO_SLOT ? slot : server_slot_first(0, sif->dnsIndex, usable);
}

#endif
