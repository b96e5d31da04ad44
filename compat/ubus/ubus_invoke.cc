// Calls of the objects' methods, and the replies to them.
#include "blob_buf.h"
#include "ubus_connection.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t most_queued = sizeof(ubus_message) + ubus_longest_blob; // one call of any size

size_t queued_size(const ubus_message *message)
{
    return sizeof(ubus_message) + blob_raw_len(&message->blob);
}

const ubus_method *find_method(const ubus_object *obj, const char *name)
{
    for (int i = 0; i < obj->n_methods; i++) {
        if (strcmp(obj->methods[i].name, name) == 0)
            return &obj->methods[i];
    }
    return nullptr;
}

void send_status(ubus_context *ctx, const ubus_request_data *req, int status)
{
    if (blob_buf_init(&ctx->out, 0) != 0 ||
        blob_put_u32(&ctx->out, UBUS_ATTR_STATUS, static_cast<uint32_t>(status)) != 0 ||
        blob_put_u32(&ctx->out, UBUS_ATTR_OBJID, req->object) != 0)
        return;
    (void)ubus_send(ctx, ubus_type::status, req->seq, req->peer); // the next read reports a lost connection
}

// A call of an unknown object, or without a method, is answered with peer and sequence number 0.
void invoke(ubus_context *ctx, const ubus_message *message)
{
    ubus_attributes attributes;
    ubus_attributes_find(message, &attributes);
    const blob_attr *id = attributes.at[UBUS_ATTR_OBJID];
    if (id == nullptr)
        return;
    ubus_request_data req = {};
    ubus_object *obj = ubus_object_find(ctx, ubus_u32(id));
    if (obj == nullptr)
        return send_status(ctx, &req, UBUS_STATUS_NOT_FOUND);
    if (attributes.at[UBUS_ATTR_METHOD] == nullptr)
        return send_status(ctx, &req, UBUS_STATUS_INVALID_ARGUMENT);

    req = {.object = obj->id, .peer = message->peer, .seq = message->seq};
    const auto *name = static_cast<const char *>(blob_data(attributes.at[UBUS_ATTR_METHOD]));
    const ubus_method *method = find_method(obj, name);
    if (method == nullptr)
        return send_status(ctx, &req, UBUS_STATUS_METHOD_NOT_FOUND);
    blob_attr *arguments = attributes.at[UBUS_ATTR_DATA];
    if (arguments == nullptr)
        return send_status(ctx, &req, UBUS_STATUS_INVALID_ARGUMENT);

    const int status = method->handler(ctx, obj, &req, name, arguments);
    const blob_attr *no_reply = attributes.at[UBUS_ATTR_NO_REPLY];
    if (no_reply == nullptr || *static_cast<const uint8_t *>(blob_data(no_reply)) == 0)
        send_status(ctx, &req, status);
}

// The queue is a ring; ctx->queue is its last message.
ubus_message *take_first(ubus_context *ctx)
{
    ubus_message *first = ctx->queue->next;
    if (first == ctx->queue)
        ctx->queue = nullptr;
    else
        ctx->queue->next = first->next;
    ctx->queued -= queued_size(first);
    return first;
}

} // namespace

int ubus_send_reply(ubus_context *ctx, ubus_request_data *req, blob_attr *msg)
{
    const void *data = msg != nullptr ? blob_data(msg) : nullptr;
    const size_t size = msg != nullptr ? blob_len(msg) : 0;
    if (blob_buf_init(&ctx->out, 0) != 0 || blob_put_u32(&ctx->out, UBUS_ATTR_OBJID, req->object) != 0 ||
        blob_put(&ctx->out, UBUS_ATTR_DATA, data, size) != 0 ||
        ubus_send(ctx, ubus_type::data, req->seq, req->peer) != 0)
        return UBUS_STATUS_NO_DATA;
    return UBUS_STATUS_OK;
}

void ubus_queue_add(ubus_context *ctx, ubus_message *message)
{
    // While no method can be called, the queue holds about as much as the broker holds for a client that does
    // not read.
    const size_t size = queued_size(message);
    if (ctx->queued + size > most_queued) {
        free(message);
        return;
    }
    ctx->queued += size;
    if (ctx->queue == nullptr) {
        message->next = message;
    } else {
        message->next = ctx->queue->next;
        ctx->queue->next = message;
    }
    ctx->queue = message;
    ubus_queue_run(ctx);
}

void ubus_queue_run(ubus_context *ctx)
{
    while (ctx->busy == 0 && ctx->queue != nullptr) {
        ubus_message *message = take_first(ctx);
        ++ctx->busy;
        invoke(ctx, message);
        --ctx->busy;
        free(message);
    }
}

void ubus_queue_clear(ubus_context *ctx)
{
    while (ctx->queue != nullptr)
        free(take_first(ctx));
}
