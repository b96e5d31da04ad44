#include "daemon/start.h"

#include "cache/request_cache.h"
#include "config/online_state.h"
#include "config/resolver_file.h"
#include "config/rules.h"
#include "control/bus.h"
#include "core/data_init.h"
#include "core/log.h"
#include "daemon/event_loop.h"
#include "iface/if_init.h"
#include "iface/if_show.h"

namespace {

constexpr struct {
    int (*run)();
    const char *failed;
} steps[] = {
    {dnsproxy_data_init, "Fail to init dnsproxy data."},
    {dnsproxy_pipe_init, "Fail to init pipe."},
    {dnsproxy_cache_init, "Fail to init cache tbl."},
    {dnsproxy_cache_init_v6, "Fail to init IPv6 cache tbl."},
    {dnsproxy_if_init, "Fail to init if data."},
    {dnsproxy_config_init, "dnsproxy_config_init failed."},
};

} // namespace

int dnsproxy_start()
{
    for (const auto &step : steps) {
        const int status = step.run();
        if (status < 0) {
            DNSPROXY_LOG(ERROR, __func__, status, "%s", step.failed);
            DNSPROXY_RETURN(__func__, status);
        }
    }
    // From here on nothing stops the start: a router without servers or rules still answers its controls.
    dnsproxy_load_servers();
    dnsproxy_if_show();
    dnsproxy_load_server_dev_state();
    dnsproxy_ubus_start();
    dnsproxyd();
    DNSPROXY_RETURN(__func__, 0);
}

void dnsproxy_cleanup()
{
    dnsproxy_data_deinit();
    dnsproxy_pipe_deinit();
    dnsproxy_cache_deinit();
    dnsproxy_cache_deinit_v6();
    dnsproxy_if_deinit();
}
