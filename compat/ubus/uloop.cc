// The loop: one epoll descriptor, a sorted ring of timers, and a pipe. Signal handlers may run in any thread
// and wake the loop through the pipe.
extern "C" {
#include "libubox/uloop.h"
}

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <ctime>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int64_t us_per_ms = 1000;
constexpr int64_t us_per_s = 1'000'000;

void drain_pipe(uloop_fd *reader, unsigned int);

int epoll_fd = -1;
uloop_fd pipe_reader = {
    .cb = drain_pipe, .fd = -1, .eof = false, .error = false, .registered = false, .flags = 0};
std::atomic<int> pipe_writer{-1};
std::atomic<int> end_signal{0};
std::atomic<bool> child_ended{false};
list_head timers = {&timers, &timers}; // timers.next is due first

void set_cancelled(bool value)
{
    std::atomic_ref(uloop_cancelled).store(value);
}

bool is_cancelled()
{
    return std::atomic_ref(uloop_cancelled).load();
}

void wake()
{
    const int saved = errno;
    // A full pipe wakes the loop as well.
    [[maybe_unused]] const ssize_t count = write(pipe_writer, "", 1);
    errno = saved;
}

void drain_pipe(uloop_fd *reader, unsigned int)
{
    char bytes[64];
    while (read(reader->fd, bytes, sizeof bytes) > 0)
        ;
}

void on_end_signal(int number)
{
    end_signal = number;
    set_cancelled(true);
    wake();
}

void on_child_signal(int)
{
    child_ended = true;
    wake();
}

// Sets the disposition to `to` if it is `from`.
void replace_handler(int number, void (*from)(int), void (*to)(int))
{
    struct sigaction action = {};
    if (sigaction(number, nullptr, &action) != 0 || action.sa_handler != from)
        return;
    action = {};
    action.sa_handler = to;
    sigaction(number, &action, nullptr);
}

void take_signals()
{
    replace_handler(SIGINT, SIG_DFL, on_end_signal);
    replace_handler(SIGTERM, SIG_DFL, on_end_signal);
    if (uloop_handle_sigchld)
        replace_handler(SIGCHLD, SIG_DFL, on_child_signal);
    // Stays ignored: a late reply to a broker that has ended must not end the process.
    replace_handler(SIGPIPE, SIG_DFL, SIG_IGN);
}

void give_signals_back()
{
    replace_handler(SIGINT, on_end_signal, SIG_DFL);
    replace_handler(SIGTERM, on_end_signal, SIG_DFL);
    replace_handler(SIGCHLD, on_child_signal, SIG_DFL);
}

void close_loop()
{
    for (const int fd : {epoll_fd, pipe_reader.fd, pipe_writer.exchange(-1)}) {
        if (fd >= 0)
            close(fd);
    }
    epoll_fd = -1;
    pipe_reader.fd = -1;
    pipe_reader.registered = false;
}

[[nodiscard]] int open_loop()
{
    int ends[2];
    epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    if (epoll_fd < 0 || pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        close_loop();
        return -1;
    }
    pipe_reader.fd = ends[0];
    pipe_writer = ends[1];
    if (uloop_fd_add(&pipe_reader, ULOOP_READ) != 0) {
        close_loop();
        return -1;
    }
    return 0;
}

int64_t now_us()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * us_per_s + now.tv_nsec / 1000;
}

int64_t due_us(const list_head *link)
{
    const timeval &time = reinterpret_cast<const uloop_timeout *>(link)->time;
    return int64_t{time.tv_sec} * us_per_s + time.tv_usec;
}

// A timer that a callback sets is never due before the next turn, so that it cannot starve the descriptors.
void run_timers()
{
    const int64_t now = now_us();
    while (timers.next != &timers && due_us(timers.next) < now && !is_cancelled()) {
        auto *timeout = reinterpret_cast<uloop_timeout *>(timers.next);
        uloop_timeout_cancel(timeout);
        if (timeout->cb != nullptr)
            timeout->cb(timeout);
    }
}

// Milliseconds until the first timer, rounded up; -1 without any.
int wait_length()
{
    if (timers.next == &timers)
        return -1;
    const int64_t length = due_us(timers.next) - now_us();
    if (length <= 0)
        return 0;
    const int64_t rounded = (length + us_per_ms - 1) / us_per_ms;
    return rounded < INT_MAX ? static_cast<int>(rounded) : INT_MAX;
}

// Reaps every child of the process, also children that other code started.
void reap_children()
{
    while (waitpid(-1, nullptr, WNOHANG) > 0)
        ;
}

// One event per wait: a batch could hold an event of a descriptor that an earlier callback deleted.
[[nodiscard]] int serve_one_descriptor()
{
    epoll_event event = {};
    const int count = epoll_wait(epoll_fd, &event, 1, wait_length());
    if (count <= 0)
        return count == 0 || errno == EINTR ? 0 : -1;

    auto *sock = static_cast<uloop_fd *>(event.data.ptr);
    if ((event.events & (EPOLLERR | EPOLLHUP)) != 0) {
        sock->error = true;
        uloop_fd_delete(sock);
    }
    if ((event.events & EPOLLRDHUP) != 0)
        sock->eof = true;
    unsigned int events = 0;
    if ((event.events & EPOLLIN) != 0)
        events |= ULOOP_READ;
    if ((event.events & EPOLLOUT) != 0)
        events |= ULOOP_WRITE;
    if (sock->cb != nullptr)
        sock->cb(sock, events);
    return 0;
}

} // namespace

bool uloop_cancelled = false;
bool uloop_handle_sigchld = true;

static_assert(offsetof(uloop_timeout, list) == 0);
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

int uloop_init()
{
    if (epoll_fd < 0 && open_loop() != 0)
        return -1;
    take_signals();
    return 0;
}

void uloop_done()
{
    give_signals_back();
    while (timers.next != &timers)
        uloop_timeout_cancel(reinterpret_cast<uloop_timeout *>(timers.next));
    close_loop();
}

int uloop_fd_add(uloop_fd *sock, unsigned int flags)
{
    if ((flags & (ULOOP_READ | ULOOP_WRITE)) == 0)
        return uloop_fd_delete(sock);

    if (!sock->registered && (flags & ULOOP_BLOCKING) == 0) {
        const int mode = fcntl(sock->fd, F_GETFL);
        if (mode < 0 || fcntl(sock->fd, F_SETFL, mode | O_NONBLOCK) != 0)
            return -1;
    }
    epoll_event event = {};
    if ((flags & ULOOP_READ) != 0)
        event.events |= EPOLLIN | EPOLLRDHUP;
    if ((flags & ULOOP_WRITE) != 0)
        event.events |= EPOLLOUT;
    if ((flags & ULOOP_EDGE_TRIGGER) != 0)
        event.events |= EPOLLET;
    event.data.ptr = sock;
    if (epoll_ctl(epoll_fd, sock->registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, sock->fd, &event) != 0)
        return -1;
    sock->registered = true;
    sock->eof = false;
    sock->flags = static_cast<uint8_t>(flags);
    return 0;
}

int uloop_fd_delete(uloop_fd *sock)
{
    if (!sock->registered)
        return 0;
    sock->registered = false;
    sock->flags = 0;
    return epoll_ctl(epoll_fd, EPOLL_CTL_DEL, sock->fd, nullptr);
}

int uloop_timeout_set(uloop_timeout *timeout, int msecs)
{
    if (timeout->pending)
        uloop_timeout_cancel(timeout);
    const int64_t due = now_us() + (msecs > 0 ? msecs * us_per_ms : 0);
    timeout->time.tv_sec = static_cast<time_t>(due / us_per_s);
    timeout->time.tv_usec = static_cast<suseconds_t>(due % us_per_s);

    list_head *before = timers.prev; // timers of equal time run in the order in which they were set
    while (before != &timers && due_us(before) > due)
        before = before->prev;
    list_head *link = &timeout->list;
    link->prev = before;
    link->next = before->next;
    link->next->prev = link;
    before->next = link;
    timeout->pending = true;
    return 0;
}

int uloop_timeout_cancel(uloop_timeout *timeout)
{
    if (!timeout->pending)
        return -1;
    timeout->list.prev->next = timeout->list.next;
    timeout->list.next->prev = timeout->list.prev;
    timeout->pending = false;
    return 0;
}

int uloop_run()
{
    end_signal = 0;
    set_cancelled(false);
    while (!is_cancelled()) {
        run_timers();
        if (is_cancelled())
            break;
        if (child_ended.exchange(false))
            reap_children();
        if (serve_one_descriptor() != 0)
            break; // the loop is closed
    }
    return end_signal;
}

void uloop_end()
{
    set_cancelled(true);
}
