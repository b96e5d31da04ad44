/* Loaded in front of the C library: the monotonic clock of a process, and the ends of its waits, are the
   test's. The first thread's clock stands at the nanoseconds in the file that the variable CLOCK names;
   without it, it is the system's. That of other threads runs thirty times as fast, and with the word "fast"
   in place of a file that of every thread. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#define REAL(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))

enum { speed = 30, slice_ms = 5 };
static const int64_t ns_per_s = 1000000000;

static bool all_fast;
static pthread_t first_thread;
static const int64_t *moment; /* in the file */
static int64_t alarm_due;     /* of the first thread's only timer, which ends its wait; 0: not set */
static int alarm_fd;

__attribute__((constructor)) static void load(void)
{
    const char *path = getenv("CLOCK");
    first_thread = pthread_self();
    all_fast = path != NULL && strcmp(path, "fast") == 0;
    if (path != NULL && !all_fast) {
        const int fd = open(path, O_RDONLY | O_CLOEXEC);
        void *page = mmap(NULL, sizeof *moment, PROT_READ, MAP_SHARED, fd, 0);
        if (page == MAP_FAILED)
            abort();
        moment = page;
        close(fd);
    }
    unsetenv("LD_PRELOAD"); /* the commands that the daemon runs keep their clock */
}

static bool is_fast(void)
{
    return all_fast || !pthread_equal(pthread_self(), first_thread);
}

static int64_t in_ns(struct timespec t)
{
    return t.tv_sec * ns_per_s + t.tv_nsec;
}

static struct timespec in_timespec(int64_t ns)
{
    return (struct timespec){.tv_sec = ns / ns_per_s, .tv_nsec = ns % ns_per_s};
}

int clock_gettime(clockid_t id, struct timespec *now)
{
    const int status = REAL(clock_gettime)(id, now);
    if (status != 0 || id != CLOCK_MONOTONIC)
        return status;
    if (is_fast())
        *now = in_timespec(in_ns(*now) * speed);
    else if (moment != NULL)
        *now = in_timespec(__atomic_load_n(moment, __ATOMIC_RELAXED));
    return 0;
}

static int64_t now_ns(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return in_ns(now);
}

int timerfd_settime(int fd, int flags, const struct itimerspec *when, struct itimerspec *before)
{
    if (moment == NULL || is_fast())
        return REAL(timerfd_settime)(fd, flags, when, before);
    const int64_t wait = in_ns(when->it_value);
    alarm_fd = fd;
    alarm_due = wait == 0 ? 0 : now_ns() + wait;
    return 0;
}

/* The timer goes off by the test's clock, at which a wait looks again and again. */
int epoll_wait(int epoll, struct epoll_event *ready, int size, int limit_ms)
{
    if (is_fast())
        return REAL(epoll_wait)(epoll, ready, size, limit_ms > 0 ? limit_ms / speed + 1 : limit_ms);
    if (moment == NULL)
        return REAL(epoll_wait)(epoll, ready, size, limit_ms);
    for (int left = limit_ms < 0 ? INT_MAX : limit_ms;;) {
        if (alarm_due != 0 && now_ns() >= alarm_due) {
            const struct itimerspec at_once = {.it_value = {.tv_nsec = 1}};
            alarm_due = 0;
            REAL(timerfd_settime)(alarm_fd, 0, &at_once, NULL);
        }
        const int part = left < slice_ms ? left : slice_ms;
        const int count = REAL(epoll_wait)(epoll, ready, size, part);
        left -= limit_ms < 0 ? 0 : part;
        if (count != 0 || left == 0)
            return count;
    }
}

int poll(struct pollfd *fds, nfds_t count, int limit_ms)
{
    return REAL(poll)(fds, count, is_fast() && limit_ms > 0 ? limit_ms / speed + 1 : limit_ms);
}
