#include "control/bus_statistics.h"

#include <libubus.h>

#include "control/own_signals.h"
#include "control/statistics.h"

namespace {

constexpr int again_ms = 2000;

ubus_context *context; // nullptr: not connected
ubus_object object;
uloop_timeout again;
blob_buf reply_buf;

int get(ubus_context *ctx, ubus_object *, ubus_request_data *request, const char *, blob_attr *)
{
    if (blob_buf_init(&reply_buf, 0) != 0 || !statistics_fill(&reply_buf))
        return UBUS_STATUS_UNKNOWN_ERROR;
    ubus_send_reply(ctx, request, reply_buf.head); // a caller that has gone misses nothing
    return UBUS_STATUS_OK;
}

constexpr ubus_method methods[] = {UBUS_METHOD_NOARG("get", get)};

ubus_object_type type = UBUS_OBJECT_TYPE("dnsproxy_statistics_type", methods);

// The library still uses the context when it calls this; it is freed before the next one is made.
void lost(ubus_context *ctx)
{
    uloop_fd_delete(&ctx->sock);
    uloop_timeout_set(&again, again_ms);
}

void publish_again(uloop_timeout *)
{
    bus_statistics_publish();
}

} // namespace

void bus_statistics_publish()
{
    bus_statistics_withdraw();
    const own_signals signals;
    context = ubus_connect(BUS_SOCKET);
    if (context == nullptr)
        return;
    context->connection_lost = lost;
    again.cb = publish_again;
    object = {};
    object.name = "dnsproxy.statistics";
    object.type = &type;
    object.methods = methods;
    object.n_methods = ARRAY_SIZE(methods);
    type.id = 0; // what it is was told over another connection
    if (ubus_add_object(context, &object) == 0)
        uloop_fd_add(&context->sock, ULOOP_READ | ULOOP_BLOCKING);
    else
        bus_statistics_withdraw();
}

void bus_statistics_withdraw()
{
    uloop_timeout_cancel(&again);
    if (context != nullptr)
        ubus_free(context);
    context = nullptr;
}
