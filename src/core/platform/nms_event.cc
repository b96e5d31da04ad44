#include "core/platform/nms_event.h"

#include <dlfcn.h>
#include <syslog.h>

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

} // namespace

int nms_event_notify(int32_t code, void *data, const char *text)
{
    const notify_fn notify = management_notify();
    if (notify != nullptr)
        return notify(code, data, text);
    syslog(LOG_DAEMON | LOG_WARNING, "event %d: %s", static_cast<int>(code), text);
    return 0;
}
