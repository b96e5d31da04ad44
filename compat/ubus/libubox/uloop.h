// Stand-in for libubox, for machines without it: an event loop over descriptors, timers and signals.
//
// There is one loop, and all of it is global: it belongs to one thread, which makes every call and runs every
// callback. The one exception is uloop_end, which other threads may call too; it does not wake the loop.
// Descriptors and timers live inside their owners, which may free them in any callback, once they are out of
// the loop.
//
// There is no extern "C" in here: C++ code includes libubus.h before it, or wraps the include.
#ifndef LIBUBOX_ULOOP_H
#define LIBUBOX_ULOOP_H

#include <stdbool.h>
#include <stdint.h>
#include <sys/time.h>

#include "list.h"

#define ULOOP_READ (1 << 0)
#define ULOOP_WRITE (1 << 1)
#define ULOOP_EDGE_TRIGGER (1 << 2)
#define ULOOP_BLOCKING (1 << 3) // leave O_NONBLOCK as it is, which a first registration sets otherwise

struct uloop_fd;
struct uloop_timeout;

typedef void (*uloop_fd_handler)(struct uloop_fd *u, unsigned int events);
typedef void (*uloop_timeout_handler)(struct uloop_timeout *t);

struct uloop_fd {
    uloop_fd_handler cb; // events: ULOOP_READ, ULOOP_WRITE
    int fd;
    bool eof;        // the peer has closed, or will send no more; cleared by uloop_fd_add
    bool error;      // error or hang-up; the descriptor is out of the loop before cb is called
    bool registered; // not cleared by uloop_done
    uint8_t flags;   // of the last uloop_fd_add
};

// Zero bytes are a timer that is not pending.
struct uloop_timeout {
    struct list_head list;
    bool pending;             // false again when cb is called, which may set the timer again
    uloop_timeout_handler cb; // may be null
    struct timeval time;      // when it is due, monotonic clock
};

extern bool uloop_cancelled;
extern bool uloop_handle_sigchld; // read by uloop_init; true unless set

// Takes over SIGINT and SIGTERM (they end the loop), SIGCHLD (all ended children are reaped) and SIGPIPE
// (ignored), each only where its disposition is the default. uloop_done gives all but SIGPIPE back. Both may
// be called any number of times. 0, or -1.
int uloop_init(void);
void uloop_done(void);

// Runs until ended, by uloop_end or a signal, whose number is the result; otherwise 0. An end asked for
// before it starts has no effect. In each turn: the timers that are due, children, one descriptor.
int uloop_run(void);
void uloop_end(void);

// Registers a descriptor, or changes the flags of a registered one; without ULOOP_READ and ULOOP_WRITE it is
// deleted. 0, or -1 with errno.
int uloop_fd_add(struct uloop_fd *sock, unsigned int flags);
int uloop_fd_delete(struct uloop_fd *sock);

// One shot; a pending timer is moved. 0 or less: due at the next turn.
int uloop_timeout_set(struct uloop_timeout *timeout, int msecs);
// -1 when it is not pending.
int uloop_timeout_cancel(struct uloop_timeout *timeout);

#endif
