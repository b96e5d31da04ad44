#include "core/platform/ipcom_tmo2.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>

namespace {

constexpr int64_t ns_per_ms = 1'000'000;
constexpr int64_t ns_per_us = 1'000;
constexpr int64_t ns_per_s = 1'000'000'000;
constexpr int64_t longest_ms = int64_t{1} << 42; // 139 years; keeps every sum in range
constexpr int64_t lateness_divisor = 1024;
constexpr int64_t never = INT64_MAX;

int64_t monotonic_clock()
{
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * ns_per_s + now.tv_nsec;
}

} // namespace

int64_t (*ipcom_tmo2_clock)() = monotonic_clock;

// `ends` closes the ring of armed timers: ends.next is due first. A queue is made with the first timer of
// its length and stays.
struct ipcom_tmo2_queue {
    ipcom_tmo2_queue *next;
    int64_t length; // nanoseconds
    ipcom_tmo2 ends;
};

struct ipcom_tmo2_head {
    ipcom_tmo2_queue *queues;
};

static bool is_empty(const ipcom_tmo2_queue *queue)
{
    return queue->ends.next == &queue->ends;
}

static ipcom_tmo2_queue *queue_of(ipcom_tmo2_head *head, int64_t length)
{
    for (ipcom_tmo2_queue *queue = head->queues; queue != nullptr; queue = queue->next) {
        if (queue->length == length)
            return queue;
    }
    auto *queue = static_cast<ipcom_tmo2_queue *>(calloc(1, sizeof(ipcom_tmo2_queue)));
    if (queue == nullptr)
        return nullptr;
    queue->length = length;
    queue->ends.next = &queue->ends;
    queue->ends.prev = &queue->ends;
    queue->next = head->queues;
    head->queues = queue;
    return queue;
}

// The timer that falls due first, or nullptr.
static ipcom_tmo2 *earliest(const ipcom_tmo2_head *head)
{
    ipcom_tmo2 *first = nullptr;
    for (const ipcom_tmo2_queue *queue = head->queues; queue != nullptr; queue = queue->next) {
        if (!is_empty(queue) && (first == nullptr || queue->ends.next->deadline < first->deadline))
            first = queue->ends.next;
    }
    return first;
}

namespace {

struct schedule {
    int64_t due;  // when the first timer falls due
    int64_t wake; // the latest time at which some timer must have been served: deadline plus lateness
};

} // namespace

static schedule schedule_of(const ipcom_tmo2_head *head)
{
    schedule s = {.due = never, .wake = never};
    for (const ipcom_tmo2_queue *queue = head->queues; queue != nullptr; queue = queue->next) {
        if (is_empty(queue))
            continue;
        const int64_t deadline = queue->ends.next->deadline;
        s.due = std::min(s.due, deadline);
        s.wake = std::min(s.wake, deadline + queue->length / lateness_divisor);
    }
    return s;
}

// A timer that a callback requests has a deadline after `now` and waits.
static void run_due(ipcom_tmo2_head *head, int64_t now)
{
    for (;;) {
        ipcom_tmo2 *tmo = earliest(head);
        if (tmo == nullptr || tmo->deadline > now)
            return;
        ipcom_tmo2_cancel(tmo);
        tmo->callback(tmo->arg);
    }
}

ipcom_tmo2_head *ipcom_tmo2_new()
{
    return static_cast<ipcom_tmo2_head *>(calloc(1, sizeof(ipcom_tmo2_head)));
}

void ipcom_tmo2_delete(ipcom_tmo2_head *head)
{
    if (head == nullptr)
        return;
    while (head->queues != nullptr) {
        ipcom_tmo2_queue *queue = head->queues;
        head->queues = queue->next;
        free(queue);
    }
    free(head);
}

int ipcom_tmo2_request(ipcom_tmo2_head *head, ipcom_tmo2 *tmo, ipcom_tmo2_fn callback, void *arg,
                       int64_t milliseconds)
{
    // At least 1 ns, so that every deadline lies behind the reading of a pass in progress.
    const int64_t length = milliseconds <= 0 ? 1 : std::min(milliseconds, longest_ms) * ns_per_ms;
    ipcom_tmo2_queue *queue = queue_of(head, length);
    if (queue == nullptr)
        return -1;
    tmo->deadline = ipcom_tmo2_clock() + length;
    tmo->callback = callback;
    tmo->arg = arg;
    tmo->queue = queue;
    tmo->next = &queue->ends;
    tmo->prev = queue->ends.prev;
    tmo->prev->next = tmo;
    queue->ends.prev = tmo;
    return 0;
}

void ipcom_tmo2_cancel(ipcom_tmo2 *tmo)
{
    if (tmo->queue == nullptr)
        return;
    tmo->prev->next = tmo->next;
    tmo->next->prev = tmo->prev;
    tmo->queue = nullptr;
}

int ipcom_tmo2_select(ipcom_tmo2_head *head, int nfds, fd_set *reads, fd_set *writes, fd_set *exceptions,
                      const timeval *limit)
{
    timeval wait = {};
    timeval *timeout = nullptr;
    if (limit != nullptr) {
        wait = *limit;
        timeout = &wait;
    }
    const schedule s = schedule_of(head);
    if (s.wake != never) {
        const int64_t left = s.wake - ipcom_tmo2_clock();
        const int64_t left_us = left <= 0 ? 0 : (left + ns_per_us - 1) / ns_per_us;
        const timeval until_wake = {.tv_sec = static_cast<time_t>(left_us / 1'000'000),
                                    .tv_usec = static_cast<suseconds_t>(left_us % 1'000'000)};
        if (timeout == nullptr || timercmp(&until_wake, &wait, <)) {
            wait = until_wake;
            timeout = &wait;
        }
    }
    const int ready = select(nfds, reads, writes, exceptions, timeout);
    if (s.due != never) {
        const int error = errno;
        const int64_t now = ipcom_tmo2_clock();
        if (s.due <= now)
            run_due(head, now);
        errno = error;
    }
    return ready;
}
