#include "config/rules.h"

#include <cstdlib>
#include <cstring>
#include <uci.h>

#include "config/effect_devices.h"
#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "core/status.h"
#include "iface/listen_if.h"

namespace {

// The options of one rule; null where absent. They live in the loaded package.
struct rule {
    const char *name;
    const char *service_if;
    const char *out_if;
    const char *force_if;
    const char *out_type;
};

constexpr struct {
    const char *option;
    const char *rule::*value;
} options[] = {
    {"name", &rule::name},         {"service_if", &rule::service_if}, {"out_if", &rule::out_if},
    {"force_if", &rule::force_if}, {"out_type", &rule::out_type},
};

// A list counts as its last item, as an option that is given twice counts as its last. The type comes
// first: string and list share their memory.
const char *value_of(const uci_option *option)
{
    if (option->type == UCI_TYPE_STRING)
        return option->v.string;
    const char *last = nullptr;
    uci_element *item = nullptr;
    uci_foreach_element(&option->v.list, item)
    {
        last = item->name;
    }
    return last;
}

bool is(const char *value, const char *text)
{
    return value != nullptr && strcmp(value, text) == 0;
}

const char *or_nothing(const char *text)
{
    return text != nullptr ? text : "";
}

rule read_rule(uci_section *section)
{
    rule r = {};
    uci_element *e = nullptr;
    uci_foreach_element(&section->options, e)
    {
        for (const auto &known : options) {
            if (strcmp(e->name, known.option) == 0)
                r.*known.value = value_of(uci_to_option(e));
        }
    }
    return r;
}

void map_device(const char *op, const char *logical, char *device)
{
    const int status = dnsproxy_get_effect_devices(logical, device);
    if (status < 0)
        DNSPROXY_LOG(ERROR, op, status, "dnsproxy_get_effect_devices faield.");
}

void section_parse(uci_section *section)
{
    const rule r = read_rule(section);
    char service_device[IF_NAMESIZE] = {};
    char out_device[IF_NAMESIZE] = {};

    if (r.name == nullptr)
        DNSPROXY_LOG(ERROR, __func__, 0, "The entry has no rule_name");
    if (is(r.name, "dnsproxy_pppoes") && r.service_if != nullptr) {
        map_device(__func__, r.service_if, service_device);
        memcpy(dnsproxy_data.pppoesIfname, service_device, sizeof dnsproxy_data.pppoesIfname);
        DNSPROXY_LOG(TRACE, __func__, 0, "Set PPPoE Server interface[%s].\n", dnsproxy_data.pppoesIfname);
        return;
    }
    const bool forced = is(r.force_if, "on");
    const bool polling = is(r.out_type, "polling");
    const char *out_if = forced ? r.out_if : nullptr;
    if (polling)
        DNSPROXY_LOG(TRACE, __func__, 0, "The out type is polling[%s].\n", or_nothing(out_if));
    map_device(__func__, r.service_if, service_device);
    map_device(__func__, out_if, out_device);
    const int status = dnsproxy_listen_if_new(service_device, forced ? 1 : 0, out_device, polling ? 1 : 0);
    if (status < 0)
        DNSPROXY_LOG(ERROR, __func__, status, "dnsproxy_listen_if_new faield.");
}

void log_store_error(const char *op, uci_context *context, int status)
{
    char *text = nullptr;
    uci_get_errorstr(context, &text, "");
    DNSPROXY_LOG(ERROR, op, status, "uci error: %s", or_nothing(text));
    free(text);
}

} // namespace

int dnsproxy_config_init()
{
    uci_context *context = uci_alloc_context();
    if (context == nullptr) {
        DNSPROXY_LOG(ERROR, __func__, 0, "uci_alloc_context failed");
        return DNSPROXY_EFAIL;
    }
    uci_package *package = nullptr;
    const int status = uci_load(context, "dns", &package);
    if (status != 0) {
        DNSPROXY_LOG(ERROR, __func__, status, "uci_load failed");
        log_store_error(__func__, context, status);
        uci_free_context(context);
        return DNSPROXY_EFAIL;
    }
    DNSPROXY_LOG(TRACE, __func__, 0, "Parsing config %s", package->e.name);
    uci_element *e = nullptr;
    uci_foreach_element(&package->sections, e)
    {
        uci_section *section = uci_to_section(e);
        if (strcmp(section->type, "rule") == 0)
            section_parse(section);
    }
    uci_free_context(context);
    return 0;
}
