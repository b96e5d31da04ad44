// What connection, objects and methods use of each other.
#ifndef UBUS_CONNECTION_H
#define UBUS_CONNECTION_H

#include "ubus_message.h"

// A registration that waits for its reply.
struct ubus_request {
    ubus_request *outer; // the request that was waiting before this one
    uint16_t seq;        // network byte order
    bool done;
    int status;
    uint32_t object; // 0: none came
    uint32_t type;   // 0: none came
};

// The next sequence number, in network byte order.
uint16_t ubus_next_seq(ubus_context *ctx);

// Waits without a limit; calls that arrive in the meantime are queued. The status of the reply, or one that
// says how the connection was lost.
[[nodiscard]] int ubus_request_wait(ubus_context *ctx, ubus_request *request);

// ubus_object.cc: an object by its id, or null.
ubus_object *ubus_object_find(const ubus_context *ctx, uint32_t id);
// ubus_object.cc: registers all objects again.
void ubus_objects_refresh(ubus_context *ctx);

// ubus_invoke.cc: takes ownership of a call and queues it. The queued calls are made unless a handler or a
// wait is in progress.
void ubus_queue_add(ubus_context *ctx, ubus_message *message);
void ubus_queue_run(ubus_context *ctx);
void ubus_queue_clear(ubus_context *ctx);

#endif
