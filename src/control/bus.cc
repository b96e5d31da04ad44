#include "control/bus.h"

#include <csignal>
#include <cstring>
#include <libubus.h>
#include <pthread.h>

#include "control/bus_statistics.h"
#include "control/own_signals.h"
#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "iface/server_if.h"
#include "platform/mutex_guard.h"

namespace {

constexpr int reconnect_s = 2;
constexpr size_t field_size = 32; // of a method's text field, with its NUL

// All of this belongs to the bus thread.
ubus_context *dnsproxy_ctx; // nullptr until connected
uloop_timeout dnsproxy_reconnect_timer;
blob_buf reply_buf;
bool reconnecting; // a reconnect is under way
bool lost_again;   // and has lost its connection meanwhile

enum update_field { UPDATE_NAME, UPDATE_DEV, UPDATE_STATUS, UPDATE_FIELDS };

constexpr blobmsg_policy update_policy[UPDATE_FIELDS] = {
    {.name = "name", .type = BLOBMSG_TYPE_STRING},
    {.name = "dev", .type = BLOBMSG_TYPE_STRING},
    {.name = "status", .type = BLOBMSG_TYPE_STRING},
};

void copy_field(blob_attr *field, char (&text)[field_size])
{
    memset(text, 0, sizeof text);
    const char *value = blobmsg_get_string(field);
    memcpy(text, value, strnlen(value, sizeof text - 1));
}

int dnsproxy_update_if(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *message)
{
    blob_attr *fields[UPDATE_FIELDS] = {};
    blobmsg_parse(update_policy, UPDATE_FIELDS, fields, blob_data(message),
                  static_cast<unsigned int>(blob_len(message)));
    for (const blob_attr *field : fields) {
        if (field == nullptr)
            return UBUS_STATUS_INVALID_ARGUMENT;
    }
    char name[field_size];
    char dev[field_size];
    char status[field_size];
    copy_field(fields[UPDATE_NAME], name);
    copy_field(fields[UPDATE_DEV], dev);
    copy_field(fields[UPDATE_STATUS], status);
    const uint64_t is_down = strcmp(status, "on") == 0 ? 0 : 1;
    DNSPROXY_LOG(DEBUG, __func__, 0, "dns proxy ubus name:%s dev:%s status:%s\r\n", name, dev, status);
    dnsproxy_server_if_state_up(dev, &is_down); // an unknown device is no error of the caller's
    return UBUS_STATUS_OK;
}

bool add_state(blob_buf *buf, const dnsproxy_server_if *sif)
{
    void *table = blobmsg_open_nested(buf, sif->ifname, false);
    if (table == nullptr)
        return false;
    const bool added = blobmsg_add_string(buf, "dev", sif->ifname) == 0 &&
                       blobmsg_add_string(buf, "status", server_if_is_down(sif) ? "off" : "on") == 0;
    blob_nest_end(buf, table);
    return added;
}

// False without memory for all lines. The message must have been initialised: the library does not test it.
bool dnsproxy_server_if_fillState(blob_buf *buf)
{
    const mutex_guard lock(&dnsproxy_data.serverIfLock);
    for (const auto *sif = ipcom_first<dnsproxy_server_if>(dnsproxy_data.serverIfList); sif != nullptr;
         sif = ipcom_next(sif)) {
        if (!add_state(buf, sif))
            return false;
    }
    return true;
}

int dnsproxy_get_state(ubus_context *ctx, ubus_object *, ubus_request_data *request, const char *,
                       blob_attr *)
{
    if (blob_buf_init(&reply_buf, 0) != 0 || !dnsproxy_server_if_fillState(&reply_buf))
        return UBUS_STATUS_UNKNOWN_ERROR;
    ubus_send_reply(ctx, request, reply_buf.head); // a caller that has gone misses nothing
    return UBUS_STATUS_OK;
}

constexpr ubus_method dnsproxy_methods[] = {
    UBUS_METHOD("update_if", dnsproxy_update_if, update_policy),
    UBUS_METHOD_NOARG("get_state", dnsproxy_get_state),
};

ubus_object_type dnsproxy_object_type = UBUS_OBJECT_TYPE("dnsproxy_type", dnsproxy_methods);

ubus_object make_object()
{
    ubus_object object = {};
    object.name = "dnsproxy";
    object.type = &dnsproxy_object_type;
    object.methods = dnsproxy_methods;
    object.n_methods = ARRAY_SIZE(dnsproxy_methods);
    return object;
}

ubus_object dnsproxy_object;

void listen_to_bus()
{
    uloop_fd_add(&dnsproxy_ctx->sock, ULOOP_READ | ULOOP_BLOCKING);
}

bool reconnect()
{
    reconnecting = true;
    lost_again = false;
    const own_signals signals;
    const bool connected = ubus_reconnect(dnsproxy_ctx, BUS_SOCKET) == 0;
    // The library has closed its socket but may keep the number, which can be another thread's descriptor by
    // the next attempt. A connection that stands is closed by that attempt.
    if (!connected)
        dnsproxy_ctx->sock.fd = -1;
    // A registration that the bus refused is not reported, and the library forgets it.
    const bool served = connected && !lost_again &&
                        (dnsproxy_object.id != 0 || ubus_add_object(dnsproxy_ctx, &dnsproxy_object) == 0);
    reconnecting = false;
    return served && !lost_again;
}

void ubus_connection_lost(ubus_context *)
{
    // The library also comes here from within a reconnect; that one then counts as failed.
    if (reconnecting) {
        lost_again = true;
        return;
    }
    if (dnsproxy_ctx == nullptr) {
        DNSPROXY_LOG(ERROR, __func__, 0, "dnsproxy_ctx is NULL\n");
        return;
    }
    bus_statistics_withdraw();
    if (reconnect()) {
        DNSPROXY_LOG(ERROR, __func__, 0, "reconnected to ubus, new id: %08x\n", dnsproxy_ctx->local_id);
        listen_to_bus();
        bus_statistics_publish();
        return;
    }

    DNSPROXY_LOG(ERROR, __func__, 0, "failed to reconnect, trying again in %d seconds\n", reconnect_s);
    uloop_timeout_set(&dnsproxy_reconnect_timer, reconnect_s * 1000);
}

void dnsproxy_reconnect_cb(uloop_timeout *)
{
    ubus_connection_lost(nullptr);
}

// Connected, registered and in the loop; false: no object.
bool publish()
{
    const own_signals signals;
    if (dnsproxy_ctx == nullptr)
        dnsproxy_ctx = ubus_connect(BUS_SOCKET);
    if (dnsproxy_ctx == nullptr) {
        DNSPROXY_LOG(ERROR, "dnsproxy_ubus_init", 0, "Failed to connect to ubus\n");
        return false;
    }
    dnsproxy_ctx->connection_lost = ubus_connection_lost;
    dnsproxy_object = make_object();
    const int status = ubus_add_object(dnsproxy_ctx, &dnsproxy_object);
    if (status != 0) {
        DNSPROXY_LOG(ERROR, "dnsproxy_ubus_init", status, "Failed to ubus_add_obj\n");
        ubus_free(dnsproxy_ctx);
        dnsproxy_ctx = nullptr;
        return false;
    }
    uloop_init();
    listen_to_bus();
    return true;
}

void *dnsproxy_ubus_init(void *)
{
    // Mapping commands run with SIGPIPE at its default for a moment; a bus that has gone must not use it.
    sigset_t sigpipe;
    sigemptyset(&sigpipe);
    sigaddset(&sigpipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &sigpipe, nullptr);

    uloop_handle_sigchld = false;
    dnsproxy_reconnect_timer.cb = dnsproxy_reconnect_cb;
    if (!publish())
        return nullptr;
    bus_statistics_publish();
    uloop_run();
    bus_statistics_withdraw();
    uloop_done();
    ubus_free(dnsproxy_ctx);
    dnsproxy_ctx = nullptr;
    return nullptr;
}

} // namespace

int dnsproxy_ubus_start()
{
    pthread_create(&dnsproxy_data.ubusThread, nullptr, dnsproxy_ubus_init, nullptr);
    return 0;
}
