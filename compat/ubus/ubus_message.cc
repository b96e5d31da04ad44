#include "ubus_message.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

namespace {

constexpr size_t content_offset = offsetof(ubus_message, blob) + sizeof(blob_attr);

const blob_attr *blob_of(const uint8_t *header)
{
    return reinterpret_cast<const blob_attr *>(header + ubus_header_size - sizeof(blob_attr));
}

bool is_valid(const blob_attr *attr)
{
    const size_t length = blob_len(attr);
    switch (blob_id(attr)) {
    case UBUS_ATTR_STATUS:
    case UBUS_ATTR_OBJID:
    case UBUS_ATTR_OBJTYPE:
        return length == sizeof(uint32_t);
    case UBUS_ATTR_OBJPATH:
    case UBUS_ATTR_METHOD:
        return length != 0 && static_cast<const char *>(blob_data(attr))[length - 1] == '\0';
    case UBUS_ATTR_NO_REPLY:
        return length == sizeof(uint8_t);
    default:
        return true;
    }
}

// Reads up to `size` bytes without waiting. 0: nothing was there, and sock.eof is set when nothing will come
// any more.
size_t receive_bytes(ubus_context *ctx, void *bytes, size_t size)
{
    // The kernel closes descriptors that are passed along, because there is no room for them.
    ssize_t count;
    do
        count = recv(ctx->sock.fd, bytes, size, 0);
    while (count < 0 && errno == EINTR);
    if (count > 0)
        return static_cast<size_t>(count);
    if (count == 0 || (errno != EAGAIN && errno != EWOULDBLOCK))
        ctx->sock.eof = true;
    return 0;
}

// A complete header begins a message; an invalid one is dropped. After a header that announces more than a
// message may hold, the stream cannot be read any further.
ubus_arrival begin_message(ubus_context *ctx)
{
    if (!ubus_is_header(ctx->header))
        return ubus_arrival::part;
    if (blob_raw_len(blob_of(ctx->header)) <= ubus_longest_blob)
        ctx->incoming = ubus_message_new(ctx->header);
    if (ctx->incoming != nullptr)
        return ubus_arrival::part;
    ctx->sock.eof = true;
    return ubus_arrival::none;
}

// Waits while the broker does not read. MSG_NOSIGNAL is not needed: uloop_init ignores SIGPIPE.
[[nodiscard]] bool send_all(int fd, iovec *parts, int count)
{
    while (count > 0) {
        const ssize_t sent = writev(fd, parts, count);
        if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            pollfd writable = {.fd = fd, .events = POLLOUT, .revents = 0};
            poll(&writable, 1, -1); // the next attempt reports an error
            continue;
        }
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0)
            return false;
        size_t done = static_cast<size_t>(sent);
        while (count > 0 && done >= parts->iov_len) {
            done -= parts->iov_len;
            ++parts;
            --count;
        }
        if (count > 0) {
            parts->iov_base = static_cast<char *>(parts->iov_base) + done;
            parts->iov_len -= done;
        }
    }
    return true;
}

} // namespace

bool ubus_is_header(const uint8_t *header)
{
    return header[0] == 0 && blob_raw_len(blob_of(header)) >= sizeof(blob_attr);
}

ubus_message *ubus_message_new(const uint8_t *header)
{
    const size_t size = blob_len(blob_of(header));
    auto *message = static_cast<ubus_message *>(calloc(1, content_offset + size));
    if (message != nullptr)
        memcpy(&message->version, header, ubus_header_size);
    return message;
}

void ubus_attributes_find(const ubus_message *message, ubus_attributes *attributes)
{
    *attributes = {};
    char *position = static_cast<char *>(blob_data(&message->blob));
    size_t left = blob_len(&message->blob);
    while (left >= sizeof(blob_attr)) {
        auto *attr = reinterpret_cast<blob_attr *>(position);
        const size_t padded = blob_pad_len(attr);
        if (blob_raw_len(attr) < sizeof(blob_attr) || padded > left)
            return;
        if (blob_id(attr) < UBUS_ATTR_COUNT && is_valid(attr))
            attributes->at[blob_id(attr)] = attr;
        position += padded;
        left -= padded;
    }
}

uint32_t ubus_u32(const blob_attr *attr)
{
    uint32_t word;
    memcpy(&word, blob_data(attr), sizeof word);
    return ntohl(word);
}

ubus_arrival ubus_receive(ubus_context *ctx, ubus_message **message)
{
    if (ctx->lost_reported)
        return ubus_arrival::none;

    const bool has_header = ctx->incoming != nullptr;
    auto *bytes = has_header ? static_cast<uint8_t *>(blob_data(&ctx->incoming->blob)) : ctx->header;
    const size_t size = has_header ? blob_len(&ctx->incoming->blob) : ubus_header_size;
    if (ctx->received < size) {
        const size_t count = receive_bytes(ctx, bytes + ctx->received, size - ctx->received);
        if (count == 0)
            return ubus_arrival::none;
        ctx->received += count;
        if (ctx->received < size)
            return ubus_arrival::part;
    }
    ctx->received = 0;
    if (!has_header)
        return begin_message(ctx);
    *message = ctx->incoming;
    ctx->incoming = nullptr;
    return ubus_arrival::message;
}

int ubus_send(ubus_context *ctx, ubus_type type, uint16_t seq, uint32_t peer)
{
    if (ctx->lost_reported)
        return -1;
    struct {
        uint8_t version;
        ubus_type type;
        uint16_t seq;
        uint32_t peer;
    } header = {0, type, seq, peer};
    static_assert(sizeof header == 8);
    iovec parts[] = {{&header, sizeof header}, {ctx->out.head, blob_raw_len(ctx->out.head)}};
    if (send_all(ctx->sock.fd, parts, ARRAY_SIZE(parts)))
        return 0;
    ctx->sock.eof = true;
    return -1;
}
