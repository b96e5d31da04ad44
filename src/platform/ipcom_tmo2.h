// Timers of the main thread. A timer lives inside its owner; zero bytes are a timer that is not armed.
//
// Callbacks run inside ipcom_tmo2_select only, on the thread that calls it. A timer is disarmed before its
// callback runs and is not looked at afterwards: the callback may free the record that holds the timer, and
// may request and cancel any other timer. A timer that a callback requests never runs in the same call.
//
// Waits have very few distinct lengths, so there is one queue per length, in which deadlines are in order
// by themselves: request, cancel and expiry cost the same with a million timers armed.
//
// Times are milliseconds of CLOCK_MONOTONIC. A wait is never shorter than asked. While nothing else wakes the
// process, an expiry may be late by a 32nd of its length, and by 100 ms at most: under load, expiries run
// with the wake-ups of the traffic instead of causing their own. Callbacks run before the descriptors that
// woke the process are served, so no handler sees a timer that is overdue.
#ifndef PLATFORM_IPCOM_TMO2_H
#define PLATFORM_IPCOM_TMO2_H

#include <cstdint>
#include <sys/select.h>
#include <sys/time.h>

struct ipcom_tmo2_head; // the timer service

using ipcom_tmo2_fn = int (*)(void *arg); // result not looked at

struct ipcom_tmo2 {
    ipcom_tmo2 *next; // nullptr: not armed
    ipcom_tmo2 *prev;
    ipcom_tmo2_fn callback;
    void *arg;
    int64_t deadline; // nanoseconds of the service's clock
};

inline bool ipcom_tmo2_is_armed(const ipcom_tmo2 *tmo)
{
    return tmo->next != nullptr;
}

// nullptr without memory or descriptors.
ipcom_tmo2_head *ipcom_tmo2_new();

// Frees the service (nullptr: nothing). Timers that are still armed must not be touched any more.
void ipcom_tmo2_delete(ipcom_tmo2_head *head);

// Arms `tmo`, which must not be armed, to call callback(arg) once after `milliseconds` (0 and less: in the
// next call of ipcom_tmo2_select). 0, or -1 without memory for the first timer of a length.
[[nodiscard]] int ipcom_tmo2_request(ipcom_tmo2_head *head, ipcom_tmo2 *tmo, ipcom_tmo2_fn callback,
                                     void *arg, int64_t milliseconds);

// Disarms; does nothing for a timer that is not armed.
void ipcom_tmo2_cancel(ipcom_tmo2 *tmo);

// select(2) for reading that also runs the callbacks of the timers that are due. Returns select's result with
// `reads` cut down likewise: 0 when it returned for timers only, negative (errno set) when a signal
// interrupted it. A callback may have closed a descriptor that the set still shows as ready. `writes` and
// `exceptions` must be nullptr; `limit` is not changed.
int ipcom_tmo2_select(ipcom_tmo2_head *head, int nfds, fd_set *reads, const fd_set *writes,
                      const fd_set *exceptions, const timeval *limit);

// The clock as it was read after the last wait in which a timer was armed.
int64_t ipcom_tmo2_now(const ipcom_tmo2_head *head);

// To be called before a descriptor is closed that ipcom_tmo2_select was given (head nullptr: nothing).
void ipcom_tmo2_forget(ipcom_tmo2_head *head, int fd);

// The clock of the service, in nanoseconds; CLOCK_MONOTONIC unless a test moves time itself.
extern int64_t (*ipcom_tmo2_clock)();

#endif
