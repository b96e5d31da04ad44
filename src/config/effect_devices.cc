#include "config/effect_devices.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <net/if.h>

#include "core/log.h"
#include "core/status.h"

namespace {

constexpr char command_format[] =
    ". /lib/zone/zone_api.sh && usrif=$(zone_iface_to_userif %s) && zone_get_effect_devices ${usrif}";
constexpr size_t command_size = 128;
constexpr size_t logical_max = command_size - sizeof command_format + 2; // the "%s" goes, the NUL stays
static_assert(logical_max == 34);

// Refuses every character that a shell would interpret.
bool is_safe_name(const char *name)
{
    static constexpr char allowed[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-@:";
    return strspn(name, allowed) == strlen(name);
}

// The command's output stream; closing it waits for the command. The daemon ignores SIGPIPE, but the command
// gets its default action: a command that prints without end then ends when the stream is closed.
class command_output {
public:
    explicit command_output(const char *command)
    {
        struct sigaction ends = {};
        struct sigaction daemons = {};
        ends.sa_handler = SIG_DFL;
        sigaction(SIGPIPE, &ends, &daemons);
        file_ = popen(command, "re");
        sigaction(SIGPIPE, &daemons, nullptr);
    }
    ~command_output()
    {
        if (file_ != nullptr)
            pclose(file_);
    }
    command_output(const command_output &) = delete;
    command_output &operator=(const command_output &) = delete;
    [[nodiscard]] FILE *file() const { return file_; }

private:
    FILE *file_;
};

} // namespace

int dnsproxy_get_effect_devices(const char *logical, char *device)
{
    if (logical == nullptr || device == nullptr)
        return DNSPROXY_EFAIL;
    if (strcmp(logical, "loopback") == 0) {
        memcpy(device, "lo", sizeof "lo");
        DNSPROXY_LOG(TRACE, __func__, 0, "infaces:%s,devs:%s", logical, device);
        return 0;
    }
    if (!is_safe_name(logical) || strlen(logical) > logical_max) {
        DNSPROXY_LOG(ERROR, __func__, DNSPROXY_EFAIL, "The interface name can not be mapped(ifname:%s).",
                     logical);
        return DNSPROXY_EFAIL;
    }
    char command[command_size] = {};
    snprintf(command, sizeof command, command_format, logical);
    const command_output output(command);
    if (output.file() == nullptr) {
        DNSPROXY_LOG(ERROR, __func__, 0, "Failed to get other infaces status.");
        return DNSPROXY_EFAIL;
    }
    DNSPROXY_LOG(TRACE, __func__, 0, "infaces:%s,devs:%s", logical, device);
    DNSPROXY_LOG(TRACE, __func__, 0, " strlen(devs):%d", static_cast<int>(strlen(device)));
    char line[64] = {};
    if (fgets(line, sizeof line, output.file()) == nullptr)
        return DNSPROXY_EFAIL;
    const size_t length = strlen(line) == 0 ? 0 : strlen(line) - 1; // a NUL byte may come first
    if (length >= IF_NAMESIZE)
        return DNSPROXY_EFAIL;
    memcpy(device, line, length);
    device[length] = '\0';
    DNSPROXY_LOG(TRACE, __func__, 0, "infaces:%s,devs:%s,buf:%s", logical, device, line);
    DNSPROXY_LOG(TRACE, __func__, 0, "strlen(devs):%d", static_cast<int>(strlen(device)));
    DNSPROXY_LOG(TRACE, __func__, 0, "strlen(buf):%d", static_cast<int>(strlen(line)));
    return 0;
}
