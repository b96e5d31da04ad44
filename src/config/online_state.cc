#include "config/online_state.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <net/if.h>

#include "config/text_file.h"
#include "core/log.h"
#include "iface/server_if.h"

namespace {

constexpr char path[] = "/tmp/online/state";
constexpr char separator[] = "=";

void apply_line(const char *op, char *line)
{
    char *rest = nullptr;
    const char *device = strtok_r(line, separator, &rest);
    if (device == nullptr)
        return;
    DNSPROXY_LOG(DEBUG, op, 0, "token:%s", device);
    char name[IF_NAMESIZE + 1] = {}; // a name that does not fit keeps one character too many: no device's
    memcpy(name, device, strnlen(device, IF_NAMESIZE));
    const char *state = strtok_r(nullptr, separator, &rest);
    if (state == nullptr)
        return;
    const uint64_t is_down = strncmp(state, "off", 3) == 0 ? 1 : 0;
    dnsproxy_server_if_state_up(name, &is_down); // not every device of the router is an outgoing one
}

} // namespace

int dnsproxy_load_server_dev_state()
{
    text_file file(path);
    if (!file.is_open()) {
        const int error = errno;
        DNSPROXY_LOG(ERROR, __func__, 0, "failed to read %s: %s", path, strerror(error));
        return 0;
    }
    while (char *line = file.next_line())
        apply_line(__func__, line);
    return 0;
}
