// The daemon's start with every call that can fail, failing once: the first time that it is made, the second
// time, and so on. It must end, stay without serving, or serve.

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <libubus.h>
#include <net/if.h>
#include <string>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "control/bus.h"
#include "core/log.h"
#include "tests/model/sandbox.h"
#include "tests/unit/daemon_state.h"

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
FAILING(void *, realloc, nullptr, (void *block, size_t size), (block, size))
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

// The bus has a thread and tests of its own; here its object is published and then called by the test.
namespace {

void *(*bus_thread)(void *);
const ubus_object *bus_object;
ubus_context bus;
int replies;

} // namespace

extern "C" int __wrap_pthread_create(pthread_t *, const pthread_attr_t *, void *(*body)(void *), void *)
{
    bus_thread = body;
    return EAGAIN;
}

extern "C" ubus_context *__wrap_ubus_connect(const char *)
{
    return &bus;
}

extern "C" int __wrap_ubus_add_object(ubus_context *, ubus_object *object)
{
    bus_object = object;
    return UBUS_STATUS_NOT_SUPPORTED; // ends the thread's work
}

extern "C" int __wrap_ubus_send_reply(ubus_context *, ubus_request_data *, blob_attr *)
{
    replies++;
    return 0;
}

extern "C" void __wrap_ubus_free(ubus_context *) {}

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

using bus_at_work = daemon_state;

TEST_F(bus_at_work, the_object_reports_all_lines_or_an_error)
{
    for (int i = 0; i < 40; i++)
        add_server_if(("wan" + std::to_string(i)).c_str(), "10.0.1.53", "");
    (void)dnsproxy_ubus_start();
    (void)bus_thread(nullptr);
    const ubus_method &get_state = bus_object->methods[1];
    ASSERT_STREQ(get_state.name, "get_state");
    int failures = 0;
    // The message's memory is kept from call to call, and so fails less and less.
    while (fault.left < 0 && failures < 20) {
        fail_after("realloc", failures == 0 ? 0 : 1);
        replies = 0;
        const int status = get_state.handler(&bus, nullptr, nullptr, "get_state", nullptr);
        EXPECT_EQ(status == UBUS_STATUS_OK, replies == 1);
        EXPECT_EQ(status != UBUS_STATUS_OK, fault.hit);
        failures += fault.hit ? 1 : 0;
    }
    fault.left = -1;
    EXPECT_GT(failures, 2) << "at the message, and within it";
}

} // namespace
