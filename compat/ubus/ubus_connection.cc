// A connection to the broker: greeting, messages, loss.
#include "ubus_connection.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr char default_path[] = "/var/run/ubus/ubus.sock";

// Reads in one turn of the loop, so that a broker that never pauses does not starve other descriptors.
constexpr int most_reads = 256;

static_assert(offsetof(ubus_context, sock) == 0);

[[nodiscard]] int open_socket(const char *path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const size_t length = strlen(path);
    if (length >= sizeof address.sun_path)
        return -1;
    memcpy(address.sun_path, path, length);

    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    int result;
    do
        result = connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    while (result != 0 && errno == EINTR);
    if (result != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

ssize_t read_some(int fd, void *bytes, size_t size)
{
    ssize_t count;
    do
        count = read(fd, bytes, size);
    while (count < 0 && errno == EINTR);
    return count;
}

// Reads the greeting and takes the client's id from it. Its first 12 bytes arrive in one read.
[[nodiscard]] bool read_hello(int fd, uint32_t *id)
{
    uint8_t header[ubus_header_size];
    if (read_some(fd, header, sizeof header) != sizeof header || !ubus_is_header(header))
        return false;
    ubus_message hello = {};
    memcpy(&hello.version, header, sizeof header);
    if (hello.type != ubus_type::hello || hello.peer <= 1 || blob_raw_len(&hello.blob) > ubus_longest_blob)
        return false;
    for (size_t left = blob_len(&hello.blob); left > 0;) {
        char rest[256];
        const ssize_t count = read_some(fd, rest, std::min(left, sizeof rest));
        if (count <= 0)
            return false;
        left -= static_cast<size_t>(count);
    }
    *id = hello.peer;
    return true;
}

// When the greeting fails, sock.fd keeps the number of the closed socket, as in libubus.
[[nodiscard]] int open_connection(ubus_context *ctx, const char *path)
{
    ctx->sock.eof = true;
    ctx->lost_reported = true;
    ctx->sock.fd = open_socket(path != nullptr ? path : default_path);
    if (ctx->sock.fd < 0)
        return UBUS_STATUS_CONNECTION_FAILED;
    if (!read_hello(ctx->sock.fd, &ctx->local_id) || fcntl(ctx->sock.fd, F_SETFL, O_NONBLOCK) != 0) {
        close(ctx->sock.fd);
        return UBUS_STATUS_UNKNOWN_ERROR;
    }
    ctx->sock.eof = false;
    ctx->lost_reported = false;
    ++ctx->connections;
    return UBUS_STATUS_OK;
}

// Drops what the broker sent and was not processed.
void drop_arrivals(ubus_context *ctx)
{
    free(ctx->incoming);
    ctx->incoming = nullptr;
    ctx->received = 0;
    ubus_queue_clear(ctx);
}

void close_connection(ubus_context *ctx)
{
    uloop_fd_delete(&ctx->sock);
    if (ctx->sock.fd >= 0)
        close(ctx->sock.fd);
    drop_arrivals(ctx);
}

void report_loss(ubus_context *ctx)
{
    if (ctx->lost_reported)
        return;
    ctx->lost_reported = true;
    if (ctx->connection_lost != nullptr)
        ctx->connection_lost(ctx);
}

void end_loop_on_loss(ubus_context *ctx)
{
    if (ctx->sock.registered)
        uloop_end();
}

void take_answer(ubus_context *ctx, const ubus_message *message)
{
    ubus_request *request = ctx->requests;
    while (request != nullptr && (request->seq != message->seq || message->peer != 0))
        request = request->outer;
    if (request == nullptr)
        return;

    ubus_attributes attributes;
    ubus_attributes_find(message, &attributes);
    if (message->type == ubus_type::data) {
        if (attributes.at[UBUS_ATTR_OBJID] != nullptr)
            request->object = ubus_u32(attributes.at[UBUS_ATTR_OBJID]);
        if (attributes.at[UBUS_ATTR_OBJTYPE] != nullptr)
            request->type = ubus_u32(attributes.at[UBUS_ATTR_OBJTYPE]);
    } else {
        if (attributes.at[UBUS_ATTR_STATUS] != nullptr)
            request->status = static_cast<int>(ubus_u32(attributes.at[UBUS_ATTR_STATUS]));
        request->done = true;
    }
}

// Takes ownership of the message.
void take_message(ubus_context *ctx, ubus_message *message)
{
    if (message->type == ubus_type::invoke) {
        ubus_queue_add(ctx, message);
        return;
    }
    if (message->type == ubus_type::status || message->type == ubus_type::data)
        take_answer(ctx, message);
    free(message);
}

// The socket's callback. A loss is reported once, after everything that was received before it. A socket that
// is still in the loop then is taken out: the loop would report it for ever.
void serve_socket(uloop_fd *sock, unsigned int)
{
    auto *ctx = reinterpret_cast<ubus_context *>(sock);
    if (ctx->lost_reported) {
        uloop_fd_delete(sock);
        return;
    }
    for (int reads = 0; reads < most_reads || (sock->eof && !sock->registered); reads++) {
        ubus_message *message;
        switch (ubus_receive(ctx, &message)) {
        case ubus_arrival::message:
            take_message(ctx, message);
            break;
        case ubus_arrival::part:
            break;
        case ubus_arrival::none:
            if (sock->eof)
                report_loss(ctx);
            return;
        }
    }
}

} // namespace

uint16_t ubus_next_seq(ubus_context *ctx)
{
    return htons(++ctx->seq);
}

int ubus_request_wait(ubus_context *ctx, ubus_request *request)
{
    const uint32_t connection = ctx->connections;
    request->outer = ctx->requests;
    ctx->requests = request;
    ++ctx->busy;
    while (!request->done) {
        ubus_message *message;
        switch (ubus_receive(ctx, &message)) {
        case ubus_arrival::message:
            take_message(ctx, message);
            break;
        case ubus_arrival::part:
            break;
        case ubus_arrival::none:
            if (ctx->sock.eof) {
                report_loss(ctx);
                // A connection that was made in the meantime does not know this request.
                const bool is_back = ctx->connections != connection && !ctx->sock.eof;
                request->status = is_back ? UBUS_STATUS_TIMEOUT : UBUS_STATUS_CONNECTION_FAILED;
                request->done = true;
                break;
            }
            pollfd readable = {.fd = ctx->sock.fd, .events = POLLIN, .revents = 0};
            poll(&readable, 1, -1); // the next read reports an error
            break;
        }
    }
    --ctx->busy;
    ctx->requests = request->outer;
    return request->status;
}

ubus_context *ubus_connect(const char *path)
{
    if (uloop_init() != 0)
        return nullptr;
    auto *ctx = static_cast<ubus_context *>(calloc(1, sizeof(ubus_context)));
    if (ctx == nullptr)
        return nullptr;
    ctx->sock.cb = serve_socket;
    ctx->connection_lost = end_loop_on_loss;
    if (open_connection(ctx, path) != UBUS_STATUS_OK) {
        free(ctx);
        return nullptr;
    }
    return ctx;
}

int ubus_reconnect(ubus_context *ctx, const char *path)
{
    close_connection(ctx);
    const int status = open_connection(ctx, path);
    if (status == UBUS_STATUS_OK)
        ubus_objects_refresh(ctx);
    return status;
}

void ubus_free(ubus_context *ctx)
{
    close_connection(ctx);
    blob_buf_free(&ctx->out);
    free(ctx);
}
