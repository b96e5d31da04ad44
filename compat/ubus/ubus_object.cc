// Registration of objects.
#include "blob_buf.h"
#include "ubus_connection.h"

#include <cstring>

namespace {

[[nodiscard]] int put_method(blob_buf *buf, const ubus_method &method)
{
    void *cookie = blobmsg_open_nested(buf, method.name, false);
    if (cookie == nullptr)
        return -1;
    for (int i = 0; i < method.n_policy; i++) {
        const blobmsg_policy &argument = method.policy[i];
        if (blobmsg_add_u32(buf, argument.name, static_cast<uint32_t>(argument.type)) != 0)
            return -1;
    }
    blob_nest_end(buf, cookie);
    return 0;
}

[[nodiscard]] int put_signature(blob_buf *buf, const ubus_object_type *type)
{
    void *cookie = blob_nest(buf, blob_kind(UBUS_ATTR_SIGNATURE), 0);
    if (cookie == nullptr)
        return -1;
    for (int i = 0; i < type->n_methods; i++) {
        if (put_method(buf, type->methods[i]) != 0)
            return -1;
    }
    blob_nest_end(buf, cookie);
    return 0;
}

[[nodiscard]] int put_object(blob_buf *buf, const ubus_object *obj)
{
    if (blob_buf_init(buf, 0) != 0)
        return -1;
    if (obj->name != nullptr && blob_put(buf, UBUS_ATTR_OBJPATH, obj->name, strlen(obj->name) + 1) != 0)
        return -1;
    if (obj->type == nullptr)
        return 0;
    return obj->type->id != 0 ? blob_put_u32(buf, UBUS_ATTR_OBJTYPE, obj->type->id)
                              : put_signature(buf, obj->type);
}

// Appends the object to the list, unless it is in it.
void keep_object(ubus_context *ctx, ubus_object *obj)
{
    ubus_object **slot = &ctx->objects;
    while (*slot != nullptr && *slot != obj)
        slot = &(*slot)->next;
    if (*slot == nullptr) {
        obj->next = nullptr;
        *slot = obj;
    }
}

[[nodiscard]] int register_object(ubus_context *ctx, ubus_object *obj)
{
    if (put_object(&ctx->out, obj) != 0)
        return UBUS_STATUS_NO_MEMORY;
    ubus_request request = {};
    request.seq = ubus_next_seq(ctx);
    (void)ubus_send(ctx, ubus_type::add_object, request.seq, 0); // the wait reports a lost connection
    const int status = ubus_request_wait(ctx, &request);
    if (status != UBUS_STATUS_OK)
        return status;
    if (request.object == 0)
        return UBUS_STATUS_NO_DATA;
    obj->id = request.object;
    if (obj->type != nullptr && request.type != 0)
        obj->type->id = request.type;
    keep_object(ctx, obj);
    return UBUS_STATUS_OK;
}

} // namespace

ubus_object *ubus_object_find(const ubus_context *ctx, uint32_t id)
{
    ubus_object *obj = ctx->objects;
    while (obj != nullptr && obj->id != id)
        obj = obj->next;
    return obj;
}

int ubus_add_object(ubus_context *ctx, ubus_object *obj)
{
    const int status = register_object(ctx, obj);
    ubus_queue_run(ctx);
    return status;
}

void ubus_objects_refresh(ubus_context *ctx)
{
    ubus_object *rest = ctx->objects;
    ctx->objects = nullptr;
    for (ubus_object *obj = rest; obj != nullptr; obj = obj->next) {
        obj->id = 0;
        if (obj->type != nullptr)
            obj->type->id = 0;
    }
    while (rest != nullptr) {
        ubus_object *obj = rest;
        rest = obj->next;
        ubus_add_object(ctx, obj); // a failure leaves id 0
    }
}
