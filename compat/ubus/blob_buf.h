// Building attributes of any kind, for the formats on top of them.
#ifndef BLOB_BUF_H
#define BLOB_BUF_H

extern "C" {
#include "libubox/blob.h"
}

inline constexpr uint32_t blob_extended = UINT32_C(1) << 31; // the content begins with a name
inline constexpr uint32_t blob_longest = 0xffffff;           // attribute, padding included

constexpr uint32_t blob_kind(int id)
{
    return (static_cast<uint32_t>(id) & 0x7f) << 24;
}

constexpr size_t blob_padded(size_t length)
{
    return (length + 3) & ~size_t{3};
}

// Appends an attribute with so many zero bytes of content. Null without memory or room.
[[nodiscard]] blob_attr *blob_append(blob_buf *buf, uint32_t kind, size_t size);

// The same, and makes the new attribute the head: what is appended next becomes part of it. Returns the
// cookie for blob_nest_end.
[[nodiscard]] void *blob_nest(blob_buf *buf, uint32_t kind, size_t size);

// Append plain attributes. 0, or -1 without memory or room.
[[nodiscard]] int blob_put(blob_buf *buf, int id, const void *data, size_t size);
[[nodiscard]] int blob_put_u32(blob_buf *buf, int id, uint32_t value);

#endif
