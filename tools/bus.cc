#include "bus.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include "clock.h"

namespace {

constexpr char limit_s[] = "3"; // of the call itself; the program may take longer to connect
constexpr int64_t limit_ms = 4000;
constexpr size_t longest_reply = size_t{4} << 20;

// Exit statuses of the program are the bus's statuses.
constexpr int method_not_found = 3;
constexpr int not_found = 4;
constexpr int permission_denied = 6;
constexpr int timed_out = 7;
constexpr int no_program = 127;
constexpr int no_connection = 255;

[[noreturn]] void become_ubus(int output, const char *object, const char *method, const char *arguments)
{
    const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
    (void)dup2(nowhere, STDIN_FILENO);
    (void)dup2(output, STDOUT_FILENO);
    (void)dup2(nowhere, STDERR_FILENO);
    execlp("ubus", "ubus", "-S", "-t", limit_s, "-s", "/var/run/ubus.sock", "call", object, method, arguments,
           static_cast<char *>(nullptr));
    _exit(no_program);
}

// Reads to the end; false: it did not come in time, was too long, or there is no memory.
bool read_all(int fd, int64_t deadline, char **text)
{
    size_t length = 0;
    size_t room = 0;
    for (;;) {
        if (room - length < 2) {
            room = room == 0 ? 4096 : room * 2;
            auto *longer = room <= longest_reply ? static_cast<char *>(realloc(*text, room)) : nullptr;
            if (longer == nullptr)
                return false;
            *text = longer;
        }
        pollfd waiting = {.fd = fd, .events = POLLIN, .revents = 0};
        const int64_t left = deadline - now_ms();
        if (left <= 0)
            return false;
        if (poll(&waiting, 1, static_cast<int>(left)) <= 0)
            continue;
        const ssize_t got = read(fd, *text + length, room - length - 1);
        if (got > 0)
            length += static_cast<size_t>(got);
        else if (got == 0 || errno != EINTR)
            break;
    }
    (*text)[length] = '\0';
    return true;
}

bus_result result_of(int status)
{
    switch (WIFEXITED(status) ? WEXITSTATUS(status) : -1) {
    case 0:
        return bus_result::done;
    case not_found:
    case method_not_found:
        return bus_result::no_object;
    case permission_denied:
        return bus_result::refused;
    case timed_out:
        return bus_result::silent;
    case no_program:
    case no_connection:
        return bus_result::no_bus;
    default:
        return bus_result::failed;
    }
}

} // namespace

bus_result bus_call(const char *object, const char *method, const char *arguments, char **reply)
{
    *reply = nullptr;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return bus_result::failed;
    const int64_t deadline = now_ms() + limit_ms;
    const pid_t child = fork();
    if (child == 0)
        become_ubus(ends[1], object, method, arguments);
    (void)close(ends[1]);
    const bool in_time = child > 0 && read_all(ends[0], deadline, reply);
    (void)close(ends[0]);
    bus_result result = bus_result::failed;
    if (child > 0) {
        int status = 0;
        if (!in_time)
            (void)kill(child, SIGKILL);
        while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        result = in_time ? result_of(status) : bus_result::silent;
    }
    if (result != bus_result::done) {
        free(*reply);
        *reply = nullptr;
    }
    return result;
}

const char *bus_words(bus_result result)
{
    switch (result) {
    case bus_result::done:
        return "done";
    case bus_result::no_bus:
        return "the bus cannot be reached";
    case bus_result::no_object:
        return "dnsproxyd offers nothing of the kind on the bus";
    case bus_result::refused:
        return "the bus refuses it to this user, run it as root";
    case bus_result::silent:
        return "the bus does not answer";
    default:
        return "the call on the bus failed";
    }
}
