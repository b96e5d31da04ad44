// Stand-in for libubox, for machines without it: attributes with a name and a type, and their parsing.
//
// The content of such an attribute is its name's length (16 bits, network byte order, without NUL), the name,
// a NUL, zero bytes up to a multiple of 4, and the value. Numbers are in network byte order, strings end with
// a NUL, which counts.
//
// There is no extern "C" in here: C++ code includes libubus.h before it, or wraps the include.
#ifndef LIBUBOX_BLOBMSG_H
#define LIBUBOX_BLOBMSG_H

#include "blob.h"

enum blobmsg_type {
    BLOBMSG_TYPE_UNSPEC,
    BLOBMSG_TYPE_ARRAY,
    BLOBMSG_TYPE_TABLE,
    BLOBMSG_TYPE_STRING,
    BLOBMSG_TYPE_INT64,
    BLOBMSG_TYPE_INT32,
    BLOBMSG_TYPE_INT16,
    BLOBMSG_TYPE_INT8,
    BLOBMSG_TYPE_BOOL = BLOBMSG_TYPE_INT8,
    BLOBMSG_TYPE_DOUBLE
};

struct blobmsg_policy {
    const char *name;
    enum blobmsg_type type; // BLOBMSG_TYPE_UNSPEC takes any
};

// Append to the message, or to its open nested one. A null name is the empty name. 0, or -1 without memory or
// room: a message holds 16 MiB.
int blobmsg_add_field(struct blob_buf *buf, int type, const char *name, const void *data, unsigned int len);
int blobmsg_add_string(struct blob_buf *buf, const char *name, const char *string);
int blobmsg_add_u8(struct blob_buf *buf, const char *name, uint8_t value);
int blobmsg_add_u16(struct blob_buf *buf, const char *name, uint16_t value);
int blobmsg_add_u32(struct blob_buf *buf, const char *name, uint32_t value);
int blobmsg_add_u64(struct blob_buf *buf, const char *name, uint64_t value);

// Opens a table or an array. What is added next becomes part of it, until blob_nest_end gets the cookie. Null
// without memory.
void *blobmsg_open_nested(struct blob_buf *buf, const char *name, bool array);

// Finds the first attribute of each entry's name and type; tb[i] is null where there is none. An attribute of
// a wrong form ends the search with -1 and keeps what was found before it; one that is cut off ends it with
// 0. Nested attributes are not searched. -EINVAL without any bytes.
int blobmsg_parse(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb, void *data,
                  unsigned int len);

int blobmsg_type(const struct blob_attr *attr);
const char *blobmsg_name(const struct blob_attr *attr);
void *blobmsg_data(const struct blob_attr *attr);
size_t blobmsg_len(const struct blob_attr *attr);
size_t blobmsg_data_len(const struct blob_attr *attr);
char *blobmsg_get_string(struct blob_attr *attr); // null for null

#endif
