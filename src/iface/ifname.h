// Device names as the keys of the interface tables: at most 15 characters, compared exactly.
#ifndef IFACE_IFNAME_H
#define IFACE_IFNAME_H

#include <cstdint>
#include <cstring>
#include <net/if.h>

#include "platform/ipcom_hash.h"

inline bool ifname_fits(const char *ifname)
{
    return strnlen(ifname, IF_NAMESIZE) < IF_NAMESIZE;
}

inline bool ifname_equal(const char *a, const char *b)
{
    return strcmp(a, b) == 0;
}

// Copies at most 15 characters and a NUL.
inline void ifname_copy(char *to, const char *from)
{
    const size_t length = strnlen(from, IF_NAMESIZE - 1);
    memcpy(to, from, length);
    to[length] = '\0';
}

// Key hash of a table keyed by name (a NUL-terminated string).
inline uint32_t ifname_hash(const void *ifname)
{
    return ipcom_hash_update(ifname, static_cast<uint32_t>(strlen(static_cast<const char *>(ifname))), 0);
}

#endif
