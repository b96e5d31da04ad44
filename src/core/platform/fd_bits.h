// Members of an fd_set, without the call into the C library that FD_SET and FD_ISSET make to check the range
// in hardened builds: every descriptor in a set of the daemon is below FD_SETSIZE when it is opened.
#ifndef CORE_PLATFORM_FD_BITS_H
#define CORE_PLATFORM_FD_BITS_H

#include <sys/select.h>

inline bool fd_bits_has(const fd_set *set, int fd)
{
    return (static_cast<unsigned long>(set->fds_bits[fd / NFDBITS]) >> fd % NFDBITS & 1) != 0;
}

inline void fd_bits_add(fd_set *set, int fd)
{
    auto &word = set->fds_bits[fd / NFDBITS];
    word = static_cast<fd_mask>(static_cast<unsigned long>(word) | 1UL << fd % NFDBITS);
}

// Without an early end, which the compiler turns into a few wide instructions: sets are mostly equal.
inline bool fd_bits_equal(const fd_set *a, const fd_set *b)
{
    unsigned long differing = 0;
    for (int i = 0; i < FD_SETSIZE / NFDBITS; i++)
        differing |= static_cast<unsigned long>(a->fds_bits[i] ^ b->fds_bits[i]);
    return differing == 0;
}

#endif
