// Stand-in for libubus, for machines without it: publishing objects on the bus. Source compatible with
// libubus for what is declared here, not binary compatible; on the wire it talks to the same broker.
//
// The thread of the event loop makes every call. A context keeps pointers to its objects, which the caller
// owns. Method handlers and connection_lost run in the loop, and also inside ubus_add_object and
// ubus_reconnect, which wait for the broker without a limit.
#ifndef LIBUBUS_H
#define LIBUBUS_H

#ifdef __cplusplus
extern "C" {
#endif

#include <stdint.h>

#include "libubox/blobmsg.h"
#include "libubox/uloop.h"

enum ubus_msg_status {
    UBUS_STATUS_OK,
    UBUS_STATUS_INVALID_COMMAND,
    UBUS_STATUS_INVALID_ARGUMENT,
    UBUS_STATUS_METHOD_NOT_FOUND,
    UBUS_STATUS_NOT_FOUND,
    UBUS_STATUS_NO_DATA,
    UBUS_STATUS_PERMISSION_DENIED,
    UBUS_STATUS_TIMEOUT,
    UBUS_STATUS_NOT_SUPPORTED,
    UBUS_STATUS_UNKNOWN_ERROR,
    UBUS_STATUS_CONNECTION_FAILED,
    UBUS_STATUS_NO_MEMORY,
    UBUS_STATUS_PARSE_ERROR,
    UBUS_STATUS_SYSTEM_ERROR
};

struct ubus_context;
struct ubus_object;
struct ubus_request_data;
struct ubus_message;
struct ubus_request;

// The caller gets the result as its status. msg holds the arguments and is valid until the handler returns.
typedef int (*ubus_handler_t)(struct ubus_context *ctx, struct ubus_object *obj,
                              struct ubus_request_data *req, const char *method, struct blob_attr *msg);

struct ubus_method {
    const char *name;
    ubus_handler_t handler;
    unsigned long mask;                  // unused
    unsigned long tags;                  // unused
    const struct blobmsg_policy *policy; // the announced arguments; calls are not checked against them
    int n_policy;
};

struct ubus_object_type {
    const char *name; // never sent
    uint32_t id;      // set by the library; 0 when not known to the broker
    const struct ubus_method *methods;
    int n_methods;
};

// Zero bytes but for what the caller sets: name, type, methods.
struct ubus_object {
    struct ubus_object *next; // of the context's objects
    const char *name;
    uint32_t id; // set by the library; 0 when not registered
    struct ubus_object_type *type;
    const struct ubus_method *methods;
    int n_methods;
};

struct ubus_request_data {
    uint32_t object;
    uint32_t peer; // the caller, network byte order
    uint16_t seq;  // the caller's, network byte order
};

struct ubus_context {
    struct uloop_fd sock;                              // eof: the connection is lost
    uint32_t local_id;                                 // as it stands on the wire
    void (*connection_lost)(struct ubus_context *ctx); // by default ends the loop if sock is registered in it

    // The rest is the library's own.
    struct ubus_object *objects;   // in the order of their registration
    struct ubus_request *requests; // waiting for their answers, the innermost first
    struct ubus_message *incoming; // message that is being received; null between messages
    struct ubus_message *queue;    // last of the calls that wait until busy is 0
    struct blob_buf out;           // message that is being sent
    size_t received;               // received bytes of the header, or of the content once `incoming` is set
    size_t queued;                 // bytes in the queue
    uint32_t connections;          // made so far
    int busy;                      // handlers and waits in progress
    uint16_t seq;                  // of the last request
    bool lost_reported;            // connection_lost was called for this connection
    uint8_t header[12];            // of the incoming message
};

#ifndef ARRAY_SIZE
#define ARRAY_SIZE(_array) (sizeof(_array) / sizeof((_array)[0]))
#endif

#define UBUS_METHOD(_name, _handler, _policy)                                                                \
    {                                                                                                        \
        .name = (_name), .handler = (_handler), .mask = 0, .tags = 0, .policy = (_policy),                   \
        .n_policy = ARRAY_SIZE(_policy)                                                                      \
    }

#define UBUS_METHOD_NOARG(_name, _handler)                                                                   \
    {                                                                                                        \
        .name = (_name), .handler = (_handler), .mask = 0, .tags = 0, .policy = NULL, .n_policy = 0          \
    }

#define UBUS_OBJECT_TYPE(_name, _methods)                                                                    \
    {                                                                                                        \
        .name = (_name), .id = 0, .methods = (_methods), .n_methods = ARRAY_SIZE(_methods)                   \
    }

// Calls uloop_init, connects to the broker at path (null: the default path) and waits for its greeting
// without a limit. Null on any failure.
struct ubus_context *ubus_connect(const char *path);
void ubus_free(struct ubus_context *ctx);

// Connects again and registers all objects again under new ids; does not add the socket to the loop. An
// object that is refused has id 0 and is forgotten. After UBUS_STATUS_UNKNOWN_ERROR (no valid greeting)
// sock.fd still holds the number of the closed socket. The next call closes that number again unless it is
// set to -1 before.
int ubus_reconnect(struct ubus_context *ctx, const char *path);

// Registers the object and waits for the reply without a limit.
int ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj);

// Sends a handler's reply; called inside the handler. msg may be null.
int ubus_send_reply(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *msg);

static inline void ubus_add_uloop(struct ubus_context *ctx)
{
    uloop_fd_add(&ctx->sock, ULOOP_BLOCKING | ULOOP_READ);
}

#ifdef __cplusplus
}
#endif

#endif
