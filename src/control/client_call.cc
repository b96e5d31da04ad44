// The client's side of the request pipe, a library for other programs. It does not print: its results say
// what failed.

#include <dnsproxy/client.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <pthread.h>
#include <sys/random.h>

#include "control/client_call.h"
#include "control/public_msg.h"
#include "platform/qxcom_nmpipe.h"

namespace {

constexpr char request_pipe[] = "dnsproxypublicrecvpipe";
constexpr int reply_capacity = 20;  // messages
constexpr int reply_largest = 2048; // bytes
constexpr int64_t reply_wait_ms = 10000;
constexpr int name_attempts = 16;

int64_t now_ms()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// Keeps SIGPIPE from the caller while a pipe is written whose reader may have gone.
class sigpipe_guard {
public:
    sigpipe_guard()
    {
        sigemptyset(&sigpipe_);
        sigaddset(&sigpipe_, SIGPIPE);
        sigset_t pending;
        sigemptyset(&pending);
        sigpending(&pending);
        was_pending_ = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &sigpipe_, &callers_);
    }
    ~sigpipe_guard()
    {
        const int error = errno;
        constexpr timespec at_once = {};
        // Takes the signal of our own write, never one that was waiting for the caller.
        while (!was_pending_ && sigtimedwait(&sigpipe_, nullptr, &at_once) < 0 && errno == EINTR) {
        }
        pthread_sigmask(SIG_SETMASK, &callers_, nullptr);
        errno = error;
    }
    sigpipe_guard(const sigpipe_guard &) = delete;
    sigpipe_guard &operator=(const sigpipe_guard &) = delete;

private:
    sigset_t sigpipe_;
    sigset_t callers_;
    bool was_pending_;
};

// An open end of a pipe.
class pipe_end {
public:
    explicit pipe_end(int fd) : fd_(fd) {}
    ~pipe_end()
    {
        const int error = errno; // of what failed before
        qxcom_nmpipe_close(fd_);
        errno = error;
    }
    pipe_end(const pipe_end &) = delete;
    pipe_end &operator=(const pipe_end &) = delete;
    [[nodiscard]] int fd() const { return fd_; }

private:
    int fd_;
};

// The reply pipe of one call, under a name of its own.
class reply_pipe {
public:
    reply_pipe() = default;
    ~reply_pipe()
    {
        const int error = errno;
        if (name_[0] != '\0')
            qxcom_nmpipe_delete(name_);
        errno = error;
    }
    reply_pipe(const reply_pipe &) = delete;
    reply_pipe &operator=(const reply_pipe &) = delete;
    [[nodiscard]] const char *name() const { return name_; }

    bool create()
    {
        for (int i = 0; i < name_attempts; i++) {
            uint32_t drawn = 0;
            char name[sizeof name_];
            if (getrandom(&drawn, sizeof drawn, 0) != sizeof drawn)
                return false;
            snprintf(name, sizeof name, "dnsp_%u", drawn);
            if (qxcom_nmpipe_create_new(name, reply_capacity, reply_largest) >= 0) {
                memcpy(name_, name, sizeof name_);
                return true;
            }
            if (errno != EEXIST)
                return false;
        }
        return false;
    }

private:
    char name_[16] = {};
};

// False: nothing came in time, with ETIMEDOUT, or the wait failed.
bool wait_readable(int fd, int64_t deadline)
{
    for (;;) {
        pollfd p = {.fd = fd, .events = POLLIN, .revents = 0};
        const int ready = poll(&p, 1, static_cast<int>(std::max<int64_t>(deadline - now_ms(), 0)));
        if (ready == 0)
            errno = ETIMEDOUT;
        if (ready >= 0 || errno != EINTR)
            return ready == 1;
    }
}

// Whether exactly `length` bytes came, in one message or in those of a longer block; else errno is set.
bool read_exactly(int fd, void *buffer, size_t length, int64_t deadline)
{
    auto *bytes = static_cast<char *>(buffer);
    while (length > 0) {
        const size_t part = std::min(length, NMPIPE_MESSAGE_MAX);
        if (!wait_readable(fd, deadline))
            return false;
        if (qxcom_nmpipe_read(fd, bytes, part) != static_cast<ptrdiff_t>(part)) {
            errno = EPROTO;
            return false;
        }
        bytes += part;
        length -= part;
    }
    return true;
}

bool write_request(int fd, const dnsproxy_public_msg *msg)
{
    const sigpipe_guard guard;
    return qxcom_nmpipe_write(fd, msg, sizeof *msg) == static_cast<ptrdiff_t>(sizeof *msg);
}

bool has_trailing_data(uint32_t op)
{
    return op == DNSPROXY_DNS_SERVER_GETADDRS || op == DNSPROXY_DNS_SERVER_GETIFS;
}

// The block after a reply goes into a buffer of the caller's; after a failure there is none.
int read_trailing_data(int fd, dnsproxy_public_msg *reply, int64_t deadline)
{
    reply->data = 0;
    if (reply->dataLen == 0)
        return 0;
    void *data = calloc(1, reply->dataLen);
    if (data == nullptr)
        return DNSPROXY_ENOMEMORY;
    if (!read_exactly(fd, data, reply->dataLen, deadline)) {
        free(data);
        return DNSPROXY_ERESOURCE;
    }
    reply->data = reinterpret_cast<uintptr_t>(data);
    return 0;
}

} // namespace

int dnsproxy_public_pipeOpen(int *fd)
{
    if (fd == nullptr)
        return DNSPROXY_EINVALID;
    *fd = qxcom_nmpipe_open(request_pipe, NMPIPE_WRITE, 0);
    if (*fd >= 0)
        return 0;
    *fd = -1;
    return DNSPROXY_ERESOURCE;
}

int dnsproxy_public_dnsServer(dnsproxy_public_msg *msg)
{
    return dnsproxy_client_request(msg, reply_wait_ms);
}

int dnsproxy_client_request(dnsproxy_public_msg *msg, int64_t wait_ms)
{
    if (msg == nullptr)
        return DNSPROXY_EINVALID;
    int fd = -1;
    const int opened = dnsproxy_public_pipeOpen(&fd);
    if (opened < 0)
        return opened;
    const pipe_end request(fd);
    reply_pipe pipe;
    if (!pipe.create())
        return DNSPROXY_ERESOURCE;
    memcpy(msg->pipeName, pipe.name(), strlen(pipe.name()) + 1);
    if (!write_request(request.fd(), msg))
        return DNSPROXY_ERESOURCE;

    const int64_t deadline = now_ms() + wait_ms;
    const pipe_end answer(qxcom_nmpipe_open(pipe.name(), NMPIPE_READ, 0));
    dnsproxy_public_msg reply = {};
    if (answer.fd() < 0 || !read_exactly(answer.fd(), &reply, sizeof reply, deadline))
        return DNSPROXY_ERESOURCE;
    if (reply.result < 0) {
        errno = EREMOTEIO; // it is the daemon's
        return reply.result;
    }
    if (has_trailing_data(msg->op)) {
        const int status = read_trailing_data(answer.fd(), &reply, deadline);
        if (status < 0)
            return status;
    }
    *msg = reply;
    return reply.result;
}

int dnsproxy_public_getDnsServerAll(void)
{
    return 0;
}
