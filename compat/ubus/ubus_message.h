// Messages between client and broker: a header of 8 bytes, then one attribute (id 0) that holds the message's
// attributes.
//
// Sequence numbers and peers are never converted: they stay in network byte order, and a reply repeats those
// of its message.
#ifndef UBUS_MESSAGE_H
#define UBUS_MESSAGE_H

#include "libubus.h"

enum class ubus_type : uint8_t { hello = 0, status = 1, data = 2, invoke = 5, add_object = 6 };

enum ubus_attribute {
    UBUS_ATTR_STATUS = 1,    // int32
    UBUS_ATTR_OBJPATH = 2,   // string
    UBUS_ATTR_OBJID = 3,     // int32
    UBUS_ATTR_METHOD = 4,    // string
    UBUS_ATTR_OBJTYPE = 5,   // int32
    UBUS_ATTR_SIGNATURE = 6, // a table for each method, an int32 in it for each argument: its type
    UBUS_ATTR_DATA = 7,      // arguments or reply
    UBUS_ATTR_NO_REPLY = 10, // int8
    UBUS_ATTR_COUNT
};

inline constexpr size_t ubus_longest_blob = 1 << 20; // the message's attribute, with its word

// The bytes of a message from `version` on; the content follows blob. Made by calloc.
struct ubus_message {
    ubus_message *next; // in the queue
    uint8_t version;
    ubus_type type;
    uint16_t seq;  // network byte order
    uint32_t peer; // network byte order
    blob_attr blob;
};

inline constexpr size_t ubus_header_size = sizeof(ubus_context::header);
static_assert(offsetof(ubus_message, type) == offsetof(ubus_message, version) + 1);
static_assert(offsetof(ubus_message, seq) == offsetof(ubus_message, version) + 2);
static_assert(offsetof(ubus_message, peer) == offsetof(ubus_message, version) + 4);
static_assert(offsetof(ubus_message, blob) == offsetof(ubus_message, version) + 8);
static_assert(ubus_header_size == 8 + sizeof(blob_attr));

// Whether these first 12 bytes can begin a message.
bool ubus_is_header(const uint8_t *header);

// The message with these first 12 bytes and zero content. Null without memory.
[[nodiscard]] ubus_message *ubus_message_new(const uint8_t *header);

// The message's attributes by id, without those of a wrong form; the later one of two with the same id.
struct ubus_attributes {
    blob_attr *at[UBUS_ATTR_COUNT];
};
void ubus_attributes_find(const ubus_message *message, ubus_attributes *attributes);
uint32_t ubus_u32(const blob_attr *attr);

enum class ubus_arrival {
    none,    // there is nothing to read; sock.eof: nor will there be
    part,    // some bytes of a message, or an invalid header, which was dropped
    message, // the caller owns it
};

// Reads from the socket once, without waiting.
[[nodiscard]] ubus_arrival ubus_receive(ubus_context *ctx, ubus_message **message);

// Sends the attributes in ctx->out. 0, or -1 when the connection is lost, with sock.eof set.
[[nodiscard]] int ubus_send(ubus_context *ctx, ubus_type type, uint16_t seq, uint32_t peer);

#endif
