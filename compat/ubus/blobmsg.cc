extern "C" {
#include "libubox/blobmsg.h"
}

#include <cerrno>
#include <cstring>
#include <endian.h>

#include "blob_buf.h"

namespace {

constexpr size_t name_len_size = sizeof(uint16_t);
constexpr size_t longest_policy_name = 255;

bool is_extended(const blob_attr *attr)
{
    return (*reinterpret_cast<const uint8_t *>(attr) & 0x80) != 0;
}

size_t name_len(const blob_attr *attr)
{
    uint16_t length;
    memcpy(&length, blob_data(attr), sizeof length);
    return be16toh(length);
}

// Bytes before the value: the length, the name, its NUL and padding.
size_t name_header_size(size_t name_length)
{
    return blob_padded(name_len_size + name_length + 1);
}

char *name_of(const blob_attr *attr)
{
    return static_cast<char *>(blob_data(attr)) + name_len_size;
}

void set_name(blob_attr *attr, const char *name, size_t length)
{
    const uint16_t word = htobe16(static_cast<uint16_t>(length));
    memcpy(blob_data(attr), &word, sizeof word);
    memcpy(name_of(attr), name, length);
}

bool has_valid_name(const blob_attr *attr)
{
    const size_t length = blob_len(attr);
    if (length < name_len_size)
        return false;
    const size_t name_length = name_len(attr);
    return name_header_size(name_length) <= length && name_of(attr)[name_length] == '\0';
}

bool has_valid_value(const blob_attr *attr)
{
    const size_t length = blobmsg_len(attr);
    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_UNSPEC:
    case BLOBMSG_TYPE_ARRAY:
    case BLOBMSG_TYPE_TABLE:
        return true;
    case BLOBMSG_TYPE_STRING:
        return length != 0 && static_cast<const char *>(blobmsg_data(attr))[length - 1] == '\0';
    case BLOBMSG_TYPE_INT64:
        return length == sizeof(uint64_t);
    case BLOBMSG_TYPE_INT32:
        return length == sizeof(uint32_t);
    case BLOBMSG_TYPE_INT16:
        return length == sizeof(uint16_t);
    case BLOBMSG_TYPE_INT8:
        return length == sizeof(uint8_t);
    case BLOBMSG_TYPE_DOUBLE:
        return length >= sizeof(double);
    default:
        return false;
    }
}

bool is_valid(const blob_attr *attr)
{
    return blob_raw_len(attr) >= sizeof(blob_attr) && (!is_extended(attr) || has_valid_name(attr)) &&
           has_valid_value(attr);
}

bool matches(const blobmsg_policy &policy, const blob_attr *attr)
{
    if (policy.name == nullptr ||
        (policy.type != BLOBMSG_TYPE_UNSPEC && static_cast<int>(policy.type) != blobmsg_type(attr)))
        return false;
    const size_t length = strlen(policy.name);
    return length <= longest_policy_name && length == name_len(attr) &&
           memcmp(policy.name, name_of(attr), length) == 0;
}

} // namespace

int blobmsg_add_field(blob_buf *buf, int type, const char *name, const void *data, unsigned int len)
{
    const char *shown = name != nullptr ? name : "";
    const size_t length = strlen(shown);
    if (length > UINT16_MAX)
        return -1;
    blob_attr *attr = blob_append(buf, blob_extended | blob_kind(type), name_header_size(length) + len);
    if (attr == nullptr)
        return -1;
    set_name(attr, shown, length);
    if (len != 0)
        memcpy(blobmsg_data(attr), data, len);
    return 0;
}

int blobmsg_add_string(blob_buf *buf, const char *name, const char *string)
{
    const size_t size = strlen(string) + 1;
    if (size > blob_longest)
        return -1;
    return blobmsg_add_field(buf, BLOBMSG_TYPE_STRING, name, string, static_cast<unsigned int>(size));
}

int blobmsg_add_u8(blob_buf *buf, const char *name, uint8_t value)
{
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT8, name, &value, sizeof value);
}

int blobmsg_add_u16(blob_buf *buf, const char *name, uint16_t value)
{
    const uint16_t word = htobe16(value);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT16, name, &word, sizeof word);
}

int blobmsg_add_u32(blob_buf *buf, const char *name, uint32_t value)
{
    const uint32_t word = htobe32(value);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT32, name, &word, sizeof word);
}

int blobmsg_add_u64(blob_buf *buf, const char *name, uint64_t value)
{
    const uint64_t word = htobe64(value);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT64, name, &word, sizeof word);
}

void *blobmsg_open_nested(blob_buf *buf, const char *name, bool array)
{
    const char *shown = name != nullptr ? name : "";
    const size_t length = strlen(shown);
    if (length > UINT16_MAX)
        return nullptr;
    const int type = array ? BLOBMSG_TYPE_ARRAY : BLOBMSG_TYPE_TABLE;
    void *cookie = blob_nest(buf, blob_extended | blob_kind(type), name_header_size(length));
    if (cookie != nullptr)
        set_name(buf->head, shown, length);
    return cookie;
}

int blobmsg_type(const blob_attr *attr)
{
    return static_cast<int>(blob_id(attr));
}

const char *blobmsg_name(const blob_attr *attr)
{
    return is_extended(attr) ? name_of(attr) : "";
}

void *blobmsg_data(const blob_attr *attr)
{
    char *content = static_cast<char *>(blob_data(attr));
    return is_extended(attr) ? content + name_header_size(name_len(attr)) : content;
}

size_t blobmsg_len(const blob_attr *attr)
{
    const size_t before = is_extended(attr) ? name_header_size(name_len(attr)) : 0;
    const size_t length = blob_len(attr);
    return length > before ? length - before : 0;
}

size_t blobmsg_data_len(const blob_attr *attr)
{
    return blobmsg_len(attr);
}

char *blobmsg_get_string(blob_attr *attr)
{
    return attr != nullptr ? static_cast<char *>(blobmsg_data(attr)) : nullptr;
}

int blobmsg_parse(const blobmsg_policy *policy, int policy_len, blob_attr **tb, void *data, unsigned int len)
{
    for (int i = 0; i < policy_len; i++)
        tb[i] = nullptr;
    if (data == nullptr || len == 0)
        return -EINVAL;

    char *position = static_cast<char *>(data);
    size_t left = len;
    while (left >= sizeof(blob_attr)) {
        auto *attr = reinterpret_cast<blob_attr *>(position);
        const size_t padded = blob_pad_len(attr);
        if (padded < sizeof(blob_attr) || padded > left)
            return 0;
        if (!is_valid(attr))
            return -1;
        for (int i = 0; is_extended(attr) && i < policy_len; i++) {
            if (tb[i] == nullptr && matches(policy[i], attr))
                tb[i] = attr;
        }
        position += padded;
        left -= padded;
    }
    return 0;
}
