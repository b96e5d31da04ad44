// Waits until one of many descriptors is readable, or an alarm goes off. As select(2), but the kernel keeps
// the set (epoll(7)) and the alarm (timerfd_create(2)): a wait costs the same with two descriptors and with
// hundreds, and none has to program a timer.
#ifndef PLATFORM_READ_WAITER_H
#define PLATFORM_READ_WAITER_H

#include <cstdint>
#include <sys/epoll.h>
#include <sys/select.h>

struct read_waiter {
    int epoll;
    int alarm;
    fd_set watched; // descriptors that the kernel watches for the callers
    epoll_event events[FD_SETSIZE + 1];
};

// 0, or -1 (errno set) without descriptors or memory; then there is nothing to close.
[[nodiscard]] int read_waiter_open(read_waiter *w);

void read_waiter_close(read_waiter *w);

// Lets the alarm go off once, after so many nanoseconds (at least 1). Replaces an earlier alarm.
void read_waiter_set_alarm(read_waiter *w, int64_t nanoseconds);

// Waits for the descriptors in `reads`, all below `nfds`, and for the alarm, for at most `limit_ms`
// milliseconds (negative: without end). Cuts `reads` (nullptr: empty) down to what is readable, sets *alarmed
// and returns the number of readable descriptors, or -1 with errno set and the set as it was.
//
// A descriptor that the kernel refuses to watch is tried again with each call, and a call then ends after a
// tenth of a second.
int read_waiter_wait(read_waiter *w, int nfds, fd_set *reads, int limit_ms, bool *alarmed);

// To be called before a descriptor that may be watched is closed: another one with its number would pass for
// watched.
void read_waiter_forget(read_waiter *w, int fd);

#endif
