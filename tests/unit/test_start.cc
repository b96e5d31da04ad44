// The daemon's start with every call that can fail, failing once: the first time that it is made, the second
// time, and so on. It must end, stay without serving, or serve.

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <net/if.h>
#include <string>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "core/start.h"
#include "tests/model/sandbox.h"

namespace {

[[maybe_unused]] const bool in_sandbox = require_sandbox();

struct {
    std::string call;
    int left; // calls that succeed before it fails
    bool hit;
} fault = {"", -1, false};

bool fails(const char *call)
{
    if (fault.left < 0 || fault.call != call || fault.left-- > 0)
        return false;
    fault.hit = true;
    errno = ENOMEM;
    return true;
}

void fail_after(const std::string &call, int left)
{
    fault = {call, left, false};
}

bool exits_when_serving;
enum outcome { SERVES = 10, SERVES_UNTOUCHED, STAYS, ENDS };

} // namespace

// FAILING(result, name, value when it fails, parameters, arguments)
#define FAILING(type, name, failure, parameters, arguments)                                                  \
    extern "C" type __real_##name parameters;                                                                \
    extern "C" type __wrap_##name parameters                                                                 \
    {                                                                                                        \
        return fails(#name) ? failure : __real_##name arguments;                                             \
    }

FAILING(void *, calloc, nullptr, (size_t count, size_t size), (count, size))
FAILING(int, socket, -1, (int family, int type, int protocol), (family, type, protocol))
FAILING(int, epoll_create1, -1, (int flags), (flags))
FAILING(int, epoll_ctl, -1, (int epoll, int op, int fd, epoll_event *event), (epoll, op, fd, event))
FAILING(int, timerfd_create, -1, (int clock, int flags), (clock, flags))
FAILING(int, bind, -1, (int fd, const sockaddr *address, socklen_t length), (fd, address, length))
FAILING(int, setsockopt, -1, (int fd, int level, int name, const void *value, socklen_t length),
        (fd, level, name, value, length))
FAILING(struct if_nameindex *, if_nameindex, nullptr, (), ())
FAILING(FILE *, popen, nullptr, (const char *command, const char *mode), (command, mode))
FAILING(FILE *, fopen, nullptr, (const char *path, const char *mode), (path, mode))
FAILING(FILE *, open_memstream, nullptr, (char **text, size_t *length), (text, length))
FAILING(int, mkdir, -1, (const char *path, mode_t mode), (path, mode))
FAILING(int, mkfifoat, -1, (int folder, const char *name, mode_t mode), (folder, name, mode))
// ipcom_hash_add: a table that can't grow.
FAILING(int, _Z14ipcom_hash_addP10ipcom_hashPv, -1, (void *table, void *record), (table, record))
FAILING(ssize_t, getrandom, -1, (void *data, size_t size, unsigned flags), (data, size, flags))

// That of standard output is the log's.
extern "C" int __real_fstat(int fd, struct stat *status);
extern "C" int __wrap_fstat(int fd, struct stat *status)
{
    return fd != STDOUT_FILENO && fails("fstat") ? -1 : __real_fstat(fd, status);
}

extern "C" int __real_openat(int folder, const char *name, int flags, ...);
extern "C" int __wrap_openat(int folder, const char *name, int flags, ...)
{
    return fails("openat") ? -1 : __real_openat(folder, name, flags);
}

// What openat is called in fortified code.
extern "C" int __wrap___openat_2(int folder, const char *name, int flags)
{
    return fails("openat") ? -1 : __real_openat(folder, name, flags);
}

extern "C" int __real_epoll_wait(int epoll, epoll_event *ready, int size, int limit_ms);
extern "C" int __wrap_epoll_wait(int epoll, epoll_event *ready, int size, int limit_ms)
{
    if (exits_when_serving) {
        fault.left = -1;
        exit(fault.hit ? SERVES : SERVES_UNTOUCHED);
    }
    return __real_epoll_wait(epoll, ready, size, limit_ms);
}

// The bus has threads and tests of its own.
extern "C" int __wrap_pthread_create(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *)
{
    return EAGAIN;
}

namespace {

void write_files()
{
    const auto write = [](const std::string &path, const std::string &text) {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path) << text;
    };
    write("/lib/zone/zone_api.sh", "zone_iface_to_userif() { echo $1; }\n"
                                   "zone_get_effect_devices() { echo $1; }\n");
    write("/etc/config/dns",
          "config rule\n option name a\n option service_if lan1\n"
          "config rule\n option service_if lan2\n option force_if on\n option out_if wan1\n");
    write("/tmp/resolv.conf.auto",
          "#Interface wan1\nnameserver 10.0.1.53\n#Interface wan2\nnameserver fd00::1\n");
    write("/tmp/online/state", "wan1=off\n");
}

// In a process of its own, which a leak check may end as well.
int start_with(const std::string &call, int left)
{
    const pid_t child = fork();
    if (child == 0) {
        (void)!freopen("/dev/null", "w", stdout);
        dnsproxy_data = {};
        dnsproxy_data.logLevel = DNSPROXY_LOG_TRACE;
        exits_when_serving = true;
        fail_after(call, left);
        const int status = dnsproxy_start();
        fault.left = -1;
        if (status < 0)
            dnsproxy_cleanup();
        exit(status < 0 ? ENDS : STAYS);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(start, ends_stays_or_serves_when_a_call_fails)
{
    write_files();
    // In the order of the calls, however many there are of a kind: e it ends, - it stays without serving, s
    // it serves.
    static constexpr struct {
        const char *call;
        const char *outcomes;
    } rows[] = {
        {"epoll_create1", "e"},
        {"timerfd_create", "e"},
        {"epoll_ctl", "es"},
        {"calloc", "es-"},
        {"socket", "-"},
        {"bind", "-"},
        {"setsockopt", "-"},
        {"getrandom", "s"},
        {"mkdir", "e"},
        {"mkfifoat", "e"},
        {"openat", "e-"},
        {"fstat", "e-"},
        {"if_nameindex", "s"},
        {"popen", "s"},
        {"open_memstream", "s"},
        {"fopen", "s"},
        {"_Z14ipcom_hash_addP10ipcom_hashPv", "s"},
    };
    for (const auto &row : rows) {
        std::string outcomes;
        for (int left = 0; left < 200; left++) {
            const int outcome = start_with(row.call, left);
            if (outcome == SERVES_UNTOUCHED)
                break;
            const char letter = outcome == SERVES  ? 's'
                                : outcome == STAYS ? '-'
                                : outcome == ENDS  ? 'e'
                                                   : '!';
            if (!outcomes.ends_with(letter))
                outcomes += letter;
        }
        EXPECT_EQ(outcomes, row.outcomes) << row.call;
    }
}

} // namespace
