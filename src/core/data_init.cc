#include "core/data_init.h"

#include <cstring>

#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "core/status.h"
#include "platform/qxcom_nmpipe.h"

int dnsproxy_data_init()
{
    dnsproxy_data.tmo2Head = ipcom_tmo2_new();
    if (dnsproxy_data.tmo2Head == nullptr) {
        DNSPROXY_LOG(ERROR, __func__, DNSPROXY_ERESOURCE, "Fail to create tmo2.");
        DNSPROXY_RETURN(__func__, DNSPROXY_ERESOURCE);
    }
    dnsproxy_data.startedAt = ipcom_tmo2_clock();
    dnsproxy_data.cacheServerSet = 0;
    memset(dnsproxy_data.cacheServerIfname, 0, sizeof dnsproxy_data.cacheServerIfname);
    DNSPROXY_RETURN(__func__, 0);
}

void dnsproxy_data_deinit()
{
    ipcom_tmo2_delete(dnsproxy_data.tmo2Head);
    dnsproxy_data.tmo2Head = nullptr;
}

int dnsproxy_pipe_init()
{
    const int created =
        qxcom_nmpipe_create(DNSPROXY_REQUEST_PIPE, DNSPROXY_REQUEST_CAPACITY, sizeof(dnsproxy_public_msg));
    if (created < 0) {
        DNSPROXY_LOG(ERROR, __func__, created, "Fail to create public dnsproxy recv pipe.");
        DNSPROXY_RETURN(__func__, DNSPROXY_ERESOURCE);
    }
    DNSPROXY_RETURN(__func__, created);
}

void dnsproxy_pipe_deinit()
{
    qxcom_nmpipe_delete(DNSPROXY_REQUEST_PIPE);
}
