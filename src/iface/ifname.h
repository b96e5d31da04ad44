// Device names as the keys of the interface tables: at most 15 characters, compared exactly. On the road of a
// query they are compared and copied here, character by character: names are short, and a function of the C
// library is one more place in memory to be fetched.
#ifndef IFACE_IFNAME_H
#define IFACE_IFNAME_H

#include <cstdint>
#include <cstring>
#include <net/if.h>

#include "core/platform/ipcom_hash.h"

inline bool ifname_fits(const char *ifname)
{
    return strnlen(ifname, IF_NAMESIZE) < IF_NAMESIZE;
}

inline bool ifname_equal(const char *a, const char *b)
{
    while (*a != '\0' && *a == *b) {
        a++;
        b++;
    }
    return *a == *b;
}

// Copies at most 15 characters and a NUL.
inline void ifname_copy(char *to, const char *from)
{
    for (int left = IF_NAMESIZE - 1; left > 0 && *from != '\0'; left--)
        *to++ = *from++;
    *to = '\0';
}

// Key hash of a table keyed by name (a NUL-terminated string).
inline uint32_t ifname_hash(const void *ifname)
{
    const char *begin = static_cast<const char *>(ifname);
    const char *end = begin;
    while (*end != '\0')
        end++;
    return ipcom_hash_update(ifname, static_cast<uint32_t>(end - begin), 0);
}

#endif
