#include "platform/nms_event.h"

#include <algorithm>
#include <cstdio>
#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr char library_name[] = "libnms_event_report_so.so";
constexpr char symbol_name[] = "nms_event_notify";

using notify_fn = int (*)(int32_t code, void *data, const char *text);

notify_fn management_notify()
{
    static bool looked_up;
    static notify_fn found;
    if (!looked_up) {
        looked_up = true;
        void *library = dlopen(library_name, RTLD_NOW | RTLD_LOCAL);
        if (library != nullptr)
            found = reinterpret_cast<notify_fn>(dlsym(library, symbol_name));
    }
    return found;
}

// One datagram to the system log, dropped when it cannot be taken at once. syslog(3) waits while the queue of
// the log is full, and the caller is the event loop.
void log_event(int32_t code, const char *text)
{
    const sockaddr_un log = {.sun_family = AF_UNIX, .sun_path = "/dev/log"};
    char line[256];
    const int length =
        snprintf(line, sizeof line, "<%d>dnsproxyd[%d]: event %d: %s", LOG_DAEMON | LOG_WARNING,
                 static_cast<int>(getpid()), static_cast<int>(code), text);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return;
    if (length > 0)
        sendto(fd, line, std::min(static_cast<size_t>(length), sizeof line - 1), MSG_DONTWAIT | MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr *>(&log), sizeof log);
    close(fd);
}

} // namespace

int nms_event_notify(int32_t code, void *data, const char *text)
{
    const notify_fn notify = management_notify();
    if (notify != nullptr)
        return notify(code, data, text);
    log_event(code, text);
    return 0;
}
