/* Loaded in front of the C library: moves the wall clock of one process and counts how often it is looked at.
   The environment variable WALL_CLOCK names the file, of two 64-bit numbers, that holds the seconds to move
   it by and the count. What the C library itself looks at, as for the time stamp of syslog, is not seen. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>

static struct {
    int64_t seconds;
    uint64_t looks;
} * shared;
static int (*real_clock)(clockid_t, struct timespec *);

__attribute__((constructor)) static void load(void)
{
    const char *path = getenv("WALL_CLOCK");
    const int fd = path == NULL ? -1 : open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0 ||
        (shared = mmap(NULL, sizeof *shared, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0)) == MAP_FAILED)
        abort();
    *(void **)&real_clock = dlsym(RTLD_NEXT, "clock_gettime");
    unsetenv("LD_PRELOAD"); /* the commands that the daemon runs keep their clock */
}

int clock_gettime(clockid_t id, struct timespec *now)
{
    const int status = real_clock(id, now);
    if (status == 0 && (id == CLOCK_REALTIME || id == CLOCK_REALTIME_COARSE)) {
        now->tv_sec += __atomic_load_n(&shared->seconds, __ATOMIC_RELAXED);
        __atomic_add_fetch(&shared->looks, 1, __ATOMIC_RELAXED);
    }
    return status;
}

int gettimeofday(struct timeval *restrict now, void *restrict zone)
{
    struct timespec precise;
    const int status = clock_gettime(CLOCK_REALTIME, &precise);
    (void)zone;
    now->tv_sec = precise.tv_sec;
    now->tv_usec = precise.tv_nsec / 1000;
    return status;
}

time_t time(time_t *now)
{
    struct timespec precise;
    (void)clock_gettime(CLOCK_REALTIME, &precise);
    if (now != NULL)
        *now = precise.tv_sec;
    return precise.tv_sec;
}
