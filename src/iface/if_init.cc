#include "iface/if_init.h"

#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "core/status.h"
#include "iface/listen_if.h"
#include "iface/server_if.h"

int dnsproxy_if_init()
{
    ipcom_list_init(&dnsproxy_data.listenIfList);
    ipcom_list_init(&dnsproxy_data.serverIfList);
    if (listen_if_table_init() != 0) {
        DNSPROXY_LOG(ERROR, __func__, DNSPROXY_ERESOURCE, "Fail to create listen if hash table.");
        DNSPROXY_RETURN(__func__, DNSPROXY_ERESOURCE);
    }
    if (server_if_table_init() != 0) {
        DNSPROXY_LOG(ERROR, __func__, DNSPROXY_ERESOURCE, "Fail to create server if hash table.");
        DNSPROXY_RETURN(__func__, DNSPROXY_ERESOURCE);
    }
    DNSPROXY_RETURN(__func__, 0);
}

void dnsproxy_if_deinit()
{
    listen_if_table_deinit();
    server_if_table_deinit();
    DNSPROXY_LOG(TRACE, __func__, 0, "%s", "");
}
