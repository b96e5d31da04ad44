#include "config/rules.h"

#include <cstdlib>
#include <cstring>
#include <uci.h>

#include "config/effect_devices.h"
#include "config/rule.h"
#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "core/status.h"
#include "iface/listen_if.h"

namespace {

const char *or_nothing(const char *text)
{
    return text != nullptr ? text : "";
}

void map_device(const char *op, const char *logical, char *device)
{
    const int status = dnsproxy_get_effect_devices(logical, device);
    if (status < 0)
        DNSPROXY_LOG(ERROR, op, status, "dnsproxy_get_effect_devices faield.");
}

void section_parse(uci_section *section)
{
    const dnsproxy_rule r = dnsproxy_rule_read(section);
    char service_device[IF_NAMESIZE] = {};
    char out_device[IF_NAMESIZE] = {};

    if (r.name == nullptr)
        DNSPROXY_LOG(ERROR, __func__, 0, "The entry has no rule_name");
    if (r.is_pppoe()) {
        map_device(__func__, r.service_if, service_device);
        memcpy(dnsproxy_data.pppoesIfname, service_device, sizeof dnsproxy_data.pppoesIfname);
        DNSPROXY_LOG(TRACE, __func__, 0, "Set PPPoE Server interface[%s].\n", dnsproxy_data.pppoesIfname);
        return;
    }
    const bool forced = r.is_forced();
    const bool polling = r.is_polling();
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
