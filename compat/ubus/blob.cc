// Reading attributes, and building them in a buffer. The length of an open nested attribute is not part of
// the attributes around it: blob_nest_end adds it to the next outer one.
#include "blob_buf.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t header_size = sizeof(blob_attr);
constexpr size_t first_size = 256;

// An attribute in received bytes may be unaligned.
uint32_t id_len(const blob_attr *attr)
{
    uint32_t word;
    memcpy(&word, attr, sizeof word);
    return ntohl(word);
}

void set_raw_len(blob_attr *attr, size_t length)
{
    attr->id_len = htonl((id_len(attr) & ~blob_longest) | static_cast<uint32_t>(length));
}

// After a failed call the real library would use an invalid pointer, mostly null. The stand-in aborts, so
// that a missing check of a result shows on every machine.
void require_result(const void *result)
{
    if (result == nullptr)
        abort();
}

bool grow(blob_buf *buf, int minlen)
{
    const size_t old = static_cast<size_t>(buf->buflen);
    const size_t needed = old + static_cast<size_t>(minlen);
    size_t size = old != 0 ? old : first_size;
    while (size < needed)
        size *= 2;
    void *grown = realloc(buf->buf, size);
    if (grown == nullptr)
        return false;
    buf->buf = grown;
    buf->buflen = static_cast<int>(size);
    return true;
}

blob_attr *at(const blob_buf *buf, size_t offset)
{
    return reinterpret_cast<blob_attr *>(static_cast<char *>(buf->buf) + offset);
}

size_t offset_of(const blob_buf *buf, const blob_attr *attr)
{
    return static_cast<size_t>(reinterpret_cast<const char *>(attr) - static_cast<const char *>(buf->buf));
}

// Makes room for `size` bytes at the offset. The memory may move; head follows it.
[[nodiscard]] bool reserve(blob_buf *buf, size_t offset, size_t size)
{
    if (size > blob_longest || offset + size > blob_longest)
        return false;
    const size_t available = static_cast<size_t>(buf->buflen);
    if (offset + size <= available)
        return true;
    const size_t head = buf->head != nullptr ? offset_of(buf, buf->head) : 0;
    if (!buf->grow(buf, static_cast<int>(offset + size - available)))
        return false;
    if (buf->head != nullptr)
        buf->head = at(buf, head);
    return true;
}

// Appends an attribute behind all others. It is not part of any other's length yet.
blob_attr *place(blob_buf *buf, uint32_t kind, size_t size)
{
    const size_t offset = buf->head != nullptr ? offset_of(buf, buf->head) + blob_pad_len(buf->head) : 0;
    const size_t padded = blob_padded(header_size + size);
    if (!reserve(buf, offset, padded))
        return nullptr;
    blob_attr *attr = at(buf, offset);
    memset(attr, 0, padded);
    attr->id_len = htonl(kind | static_cast<uint32_t>(header_size + size));
    return attr;
}

} // namespace

unsigned int blob_id(const blob_attr *attr)
{
    return (id_len(attr) & ~blob_extended) >> 24;
}

void *blob_data(const blob_attr *attr)
{
    return const_cast<char *>(reinterpret_cast<const char *>(attr) + header_size);
}

size_t blob_raw_len(const blob_attr *attr)
{
    return id_len(attr) & blob_longest;
}

size_t blob_len(const blob_attr *attr)
{
    const size_t length = blob_raw_len(attr);
    return length > header_size ? length - header_size : 0;
}

size_t blob_pad_len(const blob_attr *attr)
{
    return blob_padded(blob_raw_len(attr));
}

int blob_buf_init(blob_buf *buf, int id)
{
    if (buf->grow == nullptr)
        buf->grow = grow;
    buf->head = nullptr;
    buf->head = place(buf, blob_kind(id), 0);
    return buf->head != nullptr ? 0 : -ENOMEM;
}

void blob_buf_free(blob_buf *buf)
{
    free(buf->buf);
    buf->buf = nullptr;
    buf->buflen = 0;
    buf->head = nullptr;
}

blob_attr *blob_append(blob_buf *buf, uint32_t kind, size_t size)
{
    require_result(buf->head);
    blob_attr *attr = place(buf, kind, size);
    if (attr != nullptr)
        set_raw_len(buf->head, blob_pad_len(buf->head) + blob_pad_len(attr));
    return attr;
}

// The cookie is the outer attribute's offset plus 1: an offset stays valid when the memory moves, and null
// means failure.
void *blob_nest(blob_buf *buf, uint32_t kind, size_t size)
{
    require_result(buf->head);
    blob_attr *attr = place(buf, kind, size);
    if (attr == nullptr)
        return nullptr;
    const size_t outer = offset_of(buf, buf->head);
    buf->head = attr;
    // An offset, never dereferenced.
    return reinterpret_cast<void *>(outer + 1); // NOLINT(performance-no-int-to-ptr)
}

void blob_nest_end(blob_buf *buf, void *cookie)
{
    require_result(buf->head);
    require_result(cookie);
    blob_attr *outer = at(buf, reinterpret_cast<size_t>(cookie) - 1);
    set_raw_len(outer, blob_pad_len(outer) + blob_pad_len(buf->head));
    buf->head = outer;
}

int blob_put(blob_buf *buf, int id, const void *data, size_t size)
{
    blob_attr *attr = blob_append(buf, blob_kind(id), size);
    if (attr == nullptr)
        return -1;
    if (size != 0)
        memcpy(blob_data(attr), data, size);
    return 0;
}

int blob_put_u32(blob_buf *buf, int id, uint32_t value)
{
    const uint32_t word = htonl(value);
    return blob_put(buf, id, &word, sizeof word);
}
