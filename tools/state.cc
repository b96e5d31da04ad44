#include "state.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <net/if.h>

#include "text.h"
#include "wan_lines.h"

namespace {

// The daemon's lines: their devices. The caller frees the text.
bus_result read_devices(char **text, json *lines)
{
    const bus_result result = bus_call("dnsproxy", "get_state", "{}", text);
    if (result == bus_result::done)
        *lines = json_read(*text);
    return result;
}

bool is_line(json lines, const char *device)
{
    for (json name = lines.first_name(); name; name = name.value().next()) {
        char each[IF_NAMESIZE];
        if (name.value().member("dev").copy(each, sizeof each) && strcmp(each, device) == 0)
            return true;
    }
    return false;
}

} // namespace

bus_result set_state(const char *name, const char *device, link_state state)
{
    char arguments[2 * sizeof(json_text) + 64];
    char *reply = nullptr;
    json_text quoted_name(name);
    json_text quoted_device(device);
    (void)snprintf(arguments, sizeof arguments, R"({"name":%s,"dev":%s,"status":"%s"})", quoted_name.text,
                   quoted_device.text, state == link_state::up ? "on" : "off");
    const bus_result result = bus_call("dnsproxy", "update_if", arguments, &reply);
    free(reply);
    return result;
}

int run_state(const invocation &given)
{
    const char *name = given.operands[0];
    char device[IF_NAMESIZE] = {};
    char *text = nullptr;
    json lines = {nullptr};
    bus_result result = read_devices(&text, &lines);
    if (result != bus_result::done)
        return failure(EXIT_UNREACHABLE, "%s", bus_words(result));
    bool found = strlen(name) < sizeof device && is_line(lines, name);
    if (found)
        memcpy(device, name, strlen(name) + 1);
    else
        found = device_of(name, device) && is_line(lines, device);
    free(text);
    if (!found)
        return failure(EXIT_REFUSED, "%s: dnsproxyd has no such line", printable(name).text);
    result = set_state(name, device, strcmp(given.command, "up") == 0 ? link_state::up : link_state::down);
    if (result != bus_result::done)
        return failure(EXIT_UNREACHABLE, "%s", bus_words(result));
    if (given.form == format::json)
        puts("{\"result\":0}");
    return finish_output();
}
