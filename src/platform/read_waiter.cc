#include "platform/read_waiter.h"

#include <algorithm>
#include <cstring>
#include <sys/timerfd.h>
#include <unistd.h>

namespace {

constexpr int64_t ns_per_s = 1'000'000'000;
constexpr int retry_ms = 100;

int add(const read_waiter *w, int fd, uint32_t what)
{
    epoll_event event = {};
    event.events = what;
    event.data.fd = fd;
    return epoll_ctl(w->epoll, EPOLL_CTL_ADD, fd, &event);
}

// Makes the kernel watch exactly this set; false: it refused a descriptor.
[[gnu::cold, gnu::noinline]] bool update(read_waiter *w, int nfds, const fd_set *reads)
{
    bool all = true;
    for (int fd = 0; fd < FD_SETSIZE; fd++) {
        const bool wanted = fd < nfds && FD_ISSET(fd, reads);
        if (wanted == (FD_ISSET(fd, &w->watched) != 0))
            continue;
        if (!wanted)
            read_waiter_forget(w, fd);
        else if (add(w, fd, EPOLLIN) == 0)
            FD_SET(fd, &w->watched);
        else
            all = false;
    }
    return all;
}

} // namespace

int read_waiter_open(read_waiter *w)
{
    FD_ZERO(&w->watched);
    w->epoll = epoll_create1(EPOLL_CLOEXEC);
    w->alarm = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    // Edge-triggered, because the expiry count is never read.
    if (w->epoll >= 0 && w->alarm >= 0 && add(w, w->alarm, EPOLLIN | EPOLLET) == 0)
        return 0;
    read_waiter_close(w);
    return -1;
}

void read_waiter_close(read_waiter *w)
{
    for (const int fd : {w->epoll, w->alarm}) {
        if (fd >= 0)
            close(fd);
    }
}

void read_waiter_set_alarm(read_waiter *w, int64_t nanoseconds)
{
    itimerspec when = {};
    when.it_value = {.tv_sec = static_cast<time_t>(nanoseconds / ns_per_s),
                     .tv_nsec = static_cast<long>(nanoseconds % ns_per_s)};
    timerfd_settime(w->alarm, 0, &when, nullptr);
}

int read_waiter_wait(read_waiter *w, int nfds, fd_set *reads, int limit_ms, bool *alarmed)
{
    static constexpr fd_set none = {};
    const fd_set *wanted = reads != nullptr ? reads : &none;
    *alarmed = false;
    if (memcmp(wanted, &w->watched, sizeof w->watched) != 0 && !update(w, nfds, wanted))
        limit_ms = limit_ms < 0 ? retry_ms : std::min(limit_ms, retry_ms);
    const int count = epoll_wait(w->epoll, w->events, FD_SETSIZE + 1, limit_ms);
    if (count < 0)
        return count;
    if (reads != nullptr)
        FD_ZERO(reads);
    for (const epoll_event *event = w->events; event < w->events + count; event++) {
        if (event->data.fd == w->alarm)
            *alarmed = true;
        else if (reads != nullptr)
            FD_SET(event->data.fd, reads);
    }
    return *alarmed ? count - 1 : count;
}

void read_waiter_forget(read_waiter *w, int fd)
{
    if (!FD_ISSET(fd, &w->watched))
        return;
    FD_CLR(fd, &w->watched);
    epoll_ctl(w->epoll, EPOLL_CTL_DEL, fd, nullptr);
}
