// Stand-in for libubox, for machines without it: attributes and the buffer that messages are built in.
//
// An attribute is a 32-bit word in network byte order (bit 31: its content begins with a name, see blobmsg.h;
// 30..24: id; 23..0: length with this word, without padding), its content, and zero bytes up to a multiple
// of 4.
//
// There is no extern "C" in here: C++ code includes libubus.h before it, or wraps the include.
#ifndef LIBUBOX_BLOB_H
#define LIBUBOX_BLOB_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

struct blob_attr {
    uint32_t id_len; // network byte order; the content follows
};

// Zero bytes are an empty buffer. Every addition may move the memory: pointers into it, head included, are
// valid until the next call.
struct blob_buf {
    struct blob_attr *head;                         // the message; while a nested one is open, that one
    bool (*grow)(struct blob_buf *buf, int minlen); // makes room for so many bytes more
    int buflen;
    void *buf;
};

// Starts an empty message in the memory of the previous one. 0, or -ENOMEM; adding to the buffer then ends
// the process.
int blob_buf_init(struct blob_buf *buf, int id);
void blob_buf_free(struct blob_buf *buf);

// Closes what blobmsg_open_nested has opened. A null cookie ends the process.
void blob_nest_end(struct blob_buf *buf, void *cookie);

unsigned int blob_id(const struct blob_attr *attr);
void *blob_data(const struct blob_attr *attr);
size_t blob_len(const struct blob_attr *attr);     // of the content
size_t blob_raw_len(const struct blob_attr *attr); // with the header
size_t blob_pad_len(const struct blob_attr *attr); // that, rounded up to a multiple of 4

#endif
