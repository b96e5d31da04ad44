#include "platform/ipcom_tmo2.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "platform/read_waiter.h"

namespace {

constexpr int64_t ns_per_ms = 1'000'000;
constexpr int64_t ns_per_s = 1'000'000'000;
constexpr int64_t longest_ms = int64_t{1} << 42; // 139 years; keeps every sum in range
constexpr int64_t lateness_divisor = 32;
constexpr int64_t lateness_max = 100 * ns_per_ms;
constexpr int64_t alarm_slack = 75 * ns_per_ms;
constexpr int64_t never = INT64_MAX;

int64_t monotonic_clock()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
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

// The alarm wakes a wait for the timers. Setting it is a system call, so it is moved only when it would go
// off too late, or too early by the slack: a wake-up for nothing costs more than the call. Traffic runs the
// timers that are due, so under traffic the alarm is moved about every 75 ms and never goes off.
struct ipcom_tmo2_head {
    ipcom_tmo2_queue *queues;
    int64_t now;      // when the last wait ended, if a timer was armed then
    int64_t alarm_at; // `never`: it is not set; else it has yet to end a wait
    read_waiter waiter;
};

namespace {

bool is_empty(const ipcom_tmo2_queue *queue)
{
    return queue->ends.next == &queue->ends;
}

ipcom_tmo2_queue *queue_of(ipcom_tmo2_head *head, int64_t length)
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
ipcom_tmo2 *earliest(const ipcom_tmo2_head *head)
{
    ipcom_tmo2 *first = nullptr;
    for (const ipcom_tmo2_queue *queue = head->queues; queue != nullptr; queue = queue->next) {
        if (!is_empty(queue) && (first == nullptr || queue->ends.next->deadline < first->deadline))
            first = queue->ends.next;
    }
    return first;
}

struct schedule {
    int64_t due;  // when the first timer falls due
    int64_t wake; // the latest time at which some timer must have been served: deadline plus lateness
};

schedule schedule_of(const ipcom_tmo2_head *head)
{
    schedule s = {.due = never, .wake = never};
    for (const ipcom_tmo2_queue *queue = head->queues; queue != nullptr; queue = queue->next) {
        if (is_empty(queue))
            continue;
        const int64_t deadline = queue->ends.next->deadline;
        s.due = std::min(s.due, deadline);
        s.wake = std::min(s.wake, deadline + std::min(queue->length / lateness_divisor, lateness_max));
    }
    return s;
}

// A timer that a callback requests has a deadline after `now` and waits.
void run_due(ipcom_tmo2_head *head, int64_t now)
{
    for (;;) {
        ipcom_tmo2 *tmo = earliest(head);
        if (tmo == nullptr || tmo->deadline > now)
            return;
        ipcom_tmo2_cancel(tmo);
        tmo->callback(tmo->arg);
    }
}

// Sets the alarm so that a wait ends in time for the timers; false: there is no time left to wait.
bool may_wait(ipcom_tmo2_head *head, const schedule &s)
{
    if (s.wake == never || (head->alarm_at <= s.wake && s.wake - head->alarm_at < alarm_slack))
        return true;
    const int64_t left = s.wake - ipcom_tmo2_clock();
    if (left <= 0)
        return false;
    read_waiter_set_alarm(&head->waiter, left);
    head->alarm_at = s.wake;
    return true;
}

int milliseconds_of(const timeval &limit)
{
    constexpr time_t longest_s = 1'000'000;
    return static_cast<int>(std::min(limit.tv_sec, longest_s) * 1000 + (limit.tv_usec + 999) / 1000);
}

} // namespace

ipcom_tmo2_head *ipcom_tmo2_new()
{
    auto *head = static_cast<ipcom_tmo2_head *>(calloc(1, sizeof(ipcom_tmo2_head)));
    if (head == nullptr)
        return nullptr;
    head->alarm_at = never;
    if (read_waiter_open(&head->waiter) == 0)
        return head;
    free(head);
    return nullptr;
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
    read_waiter_close(&head->waiter);
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
    tmo->next = &queue->ends;
    tmo->prev = queue->ends.prev;
    tmo->prev->next = tmo;
    queue->ends.prev = tmo;
    return 0;
}

void ipcom_tmo2_cancel(ipcom_tmo2 *tmo)
{
    if (!ipcom_tmo2_is_armed(tmo))
        return;
    tmo->prev->next = tmo->next;
    tmo->next->prev = tmo->prev;
    tmo->next = nullptr;
}

int ipcom_tmo2_select(ipcom_tmo2_head *head, int nfds, fd_set *reads, const fd_set *writes,
                      const fd_set *exceptions, const timeval *limit)
{
    if (writes != nullptr || exceptions != nullptr) {
        errno = EINVAL;
        return -1;
    }
    const schedule s = schedule_of(head);
    int limit_ms = limit != nullptr ? milliseconds_of(*limit) : -1;
    if (!may_wait(head, s))
        limit_ms = 0;
    bool alarmed = false;
    const int ready = read_waiter_wait(&head->waiter, nfds, reads, limit_ms, &alarmed);
    if (alarmed)
        head->alarm_at = never;
    if (s.due == never)
        return ready;
    const int error = ready < 0 ? errno : 0;
    head->now = ipcom_tmo2_clock();
    if (s.due <= head->now)
        run_due(head, head->now);
    if (ready < 0)
        errno = error;
    return ready;
}

int64_t ipcom_tmo2_now(const ipcom_tmo2_head *head)
{
    return head->now;
}

void ipcom_tmo2_forget(ipcom_tmo2_head *head, int fd)
{
    if (head != nullptr)
        read_waiter_forget(&head->waiter, fd);
}
