// The descriptors that the event loop waits for. Main thread only.
#ifndef CORE_DESCRIPTOR_H
#define CORE_DESCRIPTOR_H

#include <climits>
#include <cstdint>
#include <sys/select.h>

// socket(2), close-on-exec and fit for the loop's descriptor sets: one that is not below FD_SETSIZE is closed
// at once and counts as not opened (-1, EMFILE).
[[nodiscard]] int descriptor_socket(int family, int type, int protocol);

// Closes the descriptor, if it is open (above 0), and sets it to -1. The wait forgets it first: another one
// with its number would pass for watched and never be reported.
void descriptor_close(int32_t *fd);

// Whether `fd` is among the `count` ready descriptors that are left. Like FD_ISSET, without its call into the
// C library: no descriptor of the loop is too high.
inline bool descriptor_is_ready(int fd, const fd_set *ready, int count)
{
    constexpr unsigned bits = CHAR_BIT * sizeof ready->fds_bits[0];
    const auto at = static_cast<unsigned>(fd);
    return count > 0 && (ready->fds_bits[at / bits] >> at % bits & 1) != 0;
}

#endif
