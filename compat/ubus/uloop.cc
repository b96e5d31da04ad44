// The loop: one epoll descriptor, a sorted ring of timers, and a pipe through which signal handlers, which
// may run in any thread, end its wait.
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

bool uloop_cancelled = false;
bool uloop_handle_sigchld = true;

static constexpr int64_t us_per_ms = 1000;
static constexpr int64_t us_per_s = 1'000'000;

static void drain_pipe(uloop_fd *reader, unsigned int);

static int epollFd = -1;
static uloop_fd pipeReader = {
    .cb = drain_pipe, .fd = -1, .eof = false, .error = false, .registered = false, .flags = 0};
static std::atomic<int> pipeWriter{-1};
static std::atomic<int> endSignal{0};
static std::atomic<bool> childEnded{false};
static list_head timers = {&timers, &timers}; // due first is timers.next

static_assert(offsetof(uloop_timeout, list) == 0);
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

static void set_cancelled(bool value)
{
    std::atomic_ref(uloop_cancelled).store(value);
}

static bool is_cancelled()
{
    return std::atomic_ref(uloop_cancelled).load();
}

static void wake()
{
    const int saved = errno;
    // A pipe that is full wakes the loop as well.
    [[maybe_unused]] const ssize_t count = write(pipeWriter, "", 1);
    errno = saved;
}

static void drain_pipe(uloop_fd *reader, unsigned int)
{
    char bytes[64];
    while (read(reader->fd, bytes, sizeof(bytes)) > 0)
        ;
}

static void on_end_signal(int number)
{
    endSignal = number;
    set_cancelled(true);
    wake();
}

static void on_child_signal(int)
{
    childEnded = true;
    wake();
}

// Puts a disposition in the place of another one, if that is what it is.
static void replace_handler(int number, void (*from)(int), void (*to)(int))
{
    struct sigaction action = {};
    if (sigaction(number, nullptr, &action) != 0 || action.sa_handler != from)
        return;
    action = {};
    action.sa_handler = to;
    (void)sigaction(number, &action, nullptr); // number and action are valid
}

static void take_signals()
{
    replace_handler(SIGINT, SIG_DFL, on_end_signal);
    replace_handler(SIGTERM, SIG_DFL, on_end_signal);
    if (uloop_handle_sigchld)
        replace_handler(SIGCHLD, SIG_DFL, on_child_signal);
    // Stays ignored for good: a late reply to a broker that has gone must not end the process.
    replace_handler(SIGPIPE, SIG_DFL, SIG_IGN);
}

static void give_signals_back()
{
    replace_handler(SIGINT, on_end_signal, SIG_DFL);
    replace_handler(SIGTERM, on_end_signal, SIG_DFL);
    replace_handler(SIGCHLD, on_child_signal, SIG_DFL);
}

static void close_loop()
{
    for (const int fd : {epollFd, pipeReader.fd, pipeWriter.exchange(-1)}) {
        if (fd >= 0)
            (void)close(fd); // nothing is lost with them
    }
    epollFd = -1;
    pipeReader.fd = -1;
    pipeReader.registered = false;
}

[[nodiscard]] static int open_loop()
{
    int ends[2];
    epollFd = epoll_create1(EPOLL_CLOEXEC);
    if (epollFd < 0 || pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        close_loop();
        return -1;
    }
    pipeReader.fd = ends[0];
    pipeWriter = ends[1];
    if (uloop_fd_add(&pipeReader, ULOOP_READ) != 0) {
        close_loop();
        return -1;
    }
    return 0;
}

int uloop_init()
{
    if (epollFd < 0 && open_loop() != 0)
        return -1;
    take_signals();
    return 0;
}

void uloop_done()
{
    give_signals_back();
    while (timers.next != &timers)
        (void)uloop_timeout_cancel(reinterpret_cast<uloop_timeout *>(timers.next)); // it is pending
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
    if (epoll_ctl(epollFd, sock->registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, sock->fd, &event) != 0)
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
    return epoll_ctl(epollFd, EPOLL_CTL_DEL, sock->fd, nullptr);
}

static int64_t now_us()
{
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // always there
    return int64_t{now.tv_sec} * us_per_s + now.tv_nsec / 1000;
}

static int64_t due_us(const list_head *link)
{
    const timeval &time = reinterpret_cast<const uloop_timeout *>(link)->time;
    return int64_t{time.tv_sec} * us_per_s + time.tv_usec;
}

int uloop_timeout_set(uloop_timeout *timeout, int msecs)
{
    if (timeout->pending)
        (void)uloop_timeout_cancel(timeout); // it is pending
    const int64_t due = now_us() + (msecs > 0 ? msecs * us_per_ms : 0);
    timeout->time.tv_sec = static_cast<time_t>(due / us_per_s);
    timeout->time.tv_usec = static_cast<suseconds_t>(due % us_per_s);

    list_head *before = timers.prev; // equal times: first come, first called
    while (before != &timers && due_us(before) > due)
        before = before->prev;
    list_head *const link = &timeout->list;
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

// A timer that a callback sets is never due before the next turn, so that it cannot starve the descriptors.
static void run_timers()
{
    const int64_t now = now_us();
    while (timers.next != &timers && due_us(timers.next) < now && !is_cancelled()) {
        auto *const timeout = reinterpret_cast<uloop_timeout *>(timers.next);
        (void)uloop_timeout_cancel(timeout); // it is pending
        if (timeout->cb != nullptr)
            timeout->cb(timeout);
    }
}

// Milliseconds until the first timer, rounded up; -1 without any.
static int wait_length()
{
    if (timers.next == &timers)
        return -1;
    const int64_t length = due_us(timers.next) - now_us();
    if (length <= 0)
        return 0;
    const int64_t rounded = (length + us_per_ms - 1) / us_per_ms;
    return rounded < INT_MAX ? static_cast<int>(rounded) : INT_MAX;
}

// Takes every child, whoever started it.
static void reap_children()
{
    while (waitpid(-1, nullptr, WNOHANG) > 0)
        ;
}

// One event for each wait: no callback meets an event fetched before another one deleted its descriptor.
[[nodiscard]] static int serve_one_descriptor()
{
    epoll_event event = {};
    const int count = epoll_wait(epollFd, &event, 1, wait_length());
    if (count <= 0)
        return count == 0 || errno == EINTR ? 0 : -1;

    auto *const sock = static_cast<uloop_fd *>(event.data.ptr);
    if ((event.events & (EPOLLERR | EPOLLHUP)) != 0) {
        sock->error = true;
        (void)uloop_fd_delete(sock); // it is registered
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

int uloop_run()
{
    endSignal = 0;
    set_cancelled(false);
    while (!is_cancelled()) {
        run_timers();
        if (is_cancelled())
            break;
        if (childEnded.exchange(false))
            reap_children();
        if (serve_one_descriptor() != 0)
            break; // there is no loop
    }
    return endSignal;
}

void uloop_end()
{
    set_cancelled(true);
}
