// What the bus sends, through the bus library's stand-in into the daemon's methods. An input is an option
// byte and the byte streams of one connection after the other, with `next_connection` between them. All its
// bytes together also serve as the arguments of a call.
#include <string_view>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <vector>

// The methods, and the life of the thread that serves them, are this file's own.
#include "control/bus.cc"

#include "tests/fuzz/fuzz_tables.h"

namespace {

constexpr std::string_view next_connection = "\xff\xff"
                                             "BUS";
constexpr int most_connections = 4;
constexpr int answers_max = 64 << 20; // nobody reads them: all must find room

enum option : uint8_t {
    piece = 0x0f,       // most bytes that a receive brings; 0: all that are there
    broker_gone = 0x10, // answers fail
};

// The broker's side.
struct {
    uint8_t options;
    std::string_view streams; // of the connections to come
    std::vector<int> fds;
} broker;

// The bus thread's time, which passes only while it waits; 0 without one.
int64_t now_ms;

std::string_view take_stream()
{
    const size_t end = std::min(broker.streams.find(next_connection), broker.streams.size());
    const std::string_view stream = broker.streams.substr(0, end);
    broker.streams.remove_prefix(std::min(end + next_connection.size(), broker.streams.size()));
    return stream;
}

// Of everything that a parse finds, all bytes are there.
void check_found(const blobmsg_policy *policy, blob_attr *const *found, size_t count)
{
    blob_buf copy = {};
    FUZZ_CHECK(blob_buf_init(&copy, 0) == 0);
    size_t copied = 0;
    for (size_t i = 0; i < count; i++) {
        if (found[i] == nullptr)
            continue;
        const size_t length = blobmsg_data_len(found[i]);
        FUZZ_CHECK(strcmp(blobmsg_name(found[i]), policy[i].name) == 0);
        FUZZ_CHECK(blobmsg_type(found[i]) != BLOBMSG_TYPE_STRING ||
                   strlen(blobmsg_get_string(found[i])) < length);
        FUZZ_CHECK(blobmsg_add_field(&copy, blobmsg_type(found[i]), policy[i].name, blobmsg_data(found[i]),
                                     static_cast<unsigned int>(length)) == 0);
        copied++;
    }
    std::vector<blob_attr *> again(count);
    (void)blobmsg_parse(policy, static_cast<int>(count), again.data(), blob_data(copy.head),
                        static_cast<unsigned int>(blob_len(copy.head)));
    FUZZ_CHECK(copied == count - static_cast<size_t>(std::count(again.begin(), again.end(), nullptr)));
    blob_buf_free(&copy);
}

void call_with(const uint8_t *data, size_t size)
{
    static constexpr blobmsg_policy policy[] = {{"name", BLOBMSG_TYPE_UNSPEC},
                                                {"dev", BLOBMSG_TYPE_TABLE},
                                                {"status", BLOBMSG_TYPE_INT32},
                                                {"", BLOBMSG_TYPE_UNSPEC}};
    std::vector<uint8_t> bytes(sizeof(blob_attr) + size);
    const uint32_t word = htonl(static_cast<uint32_t>(bytes.size()));
    memcpy(bytes.data(), &word, sizeof word);
    std::copy(data, data + size, bytes.begin() + sizeof word);
    auto *message = reinterpret_cast<blob_attr *>(bytes.data());
    blob_attr *found[std::size(policy)];
    (void)blobmsg_parse(policy, std::size(policy), found, blob_data(message),
                        static_cast<unsigned int>(size));
    check_found(policy, found, std::size(policy));
    (void)dnsproxy_update_if(nullptr, nullptr, nullptr, "update_if", message);
}

// The bus thread's life, until the broker has no more to say.
void run_thread()
{
    now_ms = 1000;
    (void)dnsproxy_ubus_init(nullptr);
    now_ms = 0;
    FUZZ_CHECK(dnsproxy_ctx == nullptr);
    for (const int fd : broker.fds)
        (void)close(fd);
    broker.fds.clear();
    // What a thread that could not publish its object leaves behind, and what outlives the thread.
    uloop_done();
    blob_buf_free(&reply_buf);
    dnsproxy_reconnect_timer = {};
    dnsproxy_object_type.id = 0;
}

} // namespace

// Their object has a connection of its own, which is not played here.
void bus_statistics_publish() {}
void bus_statistics_withdraw() {}

extern "C" {
int __wrap_connect(int fd, const sockaddr *address, socklen_t length);
int __real_epoll_wait(int fd, epoll_event *events, int size, int limit_ms);
int __wrap_epoll_wait(int fd, epoll_event *events, int size, int limit_ms);
int __real_clock_gettime(clockid_t clock, timespec *time);
int __wrap_clock_gettime(clockid_t clock, timespec *time);
ssize_t __real_recv(int fd, void *bytes, size_t size, int flags);
ssize_t __wrap_recv(int fd, void *bytes, size_t size, int flags);

// Everything is on its way when the connection stands; without a stream the bus is gone, which is the end.
int __wrap_connect(int fd, const sockaddr *, socklen_t)
{
    if (broker.streams.empty() || broker.fds.size() == most_connections) {
        uloop_end();
        return -1;
    }
    int ends[2];
    FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
    FUZZ_CHECK(setsockopt(ends[0], SOL_SOCKET, SO_SNDBUFFORCE, &answers_max, sizeof answers_max) == 0);
    const std::string_view stream = take_stream();
    FUZZ_CHECK(send(ends[1], stream.data(), stream.size(), 0) == static_cast<ssize_t>(stream.size()));
    FUZZ_CHECK(shutdown(ends[1], (broker.options & broker_gone) != 0 ? SHUT_RDWR : SHUT_WR) == 0);
    broker.fds.push_back(ends[1]);
    FUZZ_CHECK(dup3(ends[0], fd, O_CLOEXEC) == fd && close(ends[0]) == 0);
    return 0;
}

// Nothing comes while the loop waits. Without a timer it would do so for ever.
int __wrap_epoll_wait(int fd, epoll_event *events, int size, int limit_ms)
{
    const int count = __real_epoll_wait(fd, events, size, 0);
    FUZZ_CHECK(count != 0 || limit_ms >= 0);
    if (count == 0)
        now_ms += limit_ms + 1;
    return count;
}

int __wrap_clock_gettime(clockid_t clock, timespec *time)
{
    if (now_ms == 0)
        return __real_clock_gettime(clock, time);
    *time = {.tv_sec = now_ms / 1000, .tv_nsec = now_ms % 1000 * 1'000'000};
    return 0;
}

ssize_t __wrap_recv(int fd, void *bytes, size_t size, int flags)
{
    const size_t most = broker.options & piece;
    return __real_recv(fd, bytes, most != 0 ? std::min(size, most) : size, flags);
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const fuzz_tables tables;
    for (const char *ifname : {"eth0.2", "ppp-wan1", "fifteen-letters"})
        fuzz_tables::add_line(ifname);
    call_with(data, size);
    if (size > 0) {
        broker.options = data[0];
        broker.streams = {reinterpret_cast<const char *>(data) + 1, size - 1};
        run_thread();
    }
    fuzz_tables::check_link_states();
    return 0;
}
