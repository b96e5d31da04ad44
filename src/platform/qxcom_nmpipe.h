// Named pipes between processes: a FIFO in packet mode at /var/run/nmpipe/NAME (folder 0700, FIFO 0600),
// where each write of up to 4096 bytes is one message. Messages keep their order and boundaries, from any
// number of writers, and wait for a reader that comes later: the creator holds the pipe open, and locked
// (flock), until it deletes it.
//
// Names have 1 to 99 characters of [A-Za-z0-9._-] and do not begin with a dot; nothing else reaches the file
// system. A FIFO of another owner and a file that is no FIFO are refused. Writers never wait. All
// descriptors are close-on-exec. Functions set errno where they fail and may be called from any thread.
#ifndef PLATFORM_QXCOM_NMPIPE_H
#define PLATFORM_QXCOM_NMPIPE_H

#include <cstddef>
#include <cstdint>

constexpr int NMPIPE_READ = 0;      // blocking reads
constexpr int NMPIPE_WRITE = 1;     // fails at once when no process has the pipe open
constexpr int NMPIPE_READWRITE = 2; // reads do not wait: for a descriptor that select watches

constexpr size_t NMPIPE_MESSAGE_MAX = 4096; // bytes that stay one message

// Makes the pipe, or takes over one that a killed process left behind, with room for `capacity` messages of
// up to NMPIPE_MESSAGE_MAX bytes (as far as the system's limit allows). `largest` is the longest message in
// bytes that the caller will use; messages are not held to it. 0 or positive, or -1: with EWOULDBLOCK when a
// live process holds the pipe. A failure leaves no name behind that was not there before.
[[nodiscard]] int qxcom_nmpipe_create(const char *name, int capacity, int largest);

// The same for a name that must not exist yet: -1 with EEXIST when it does.
[[nodiscard]] int qxcom_nmpipe_create_new(const char *name, int capacity, int largest);

// A descriptor, or -1. `flags` is not used and should be 0.
[[nodiscard]] int qxcom_nmpipe_open(const char *name, int mode, int flags);

// Reads one message into `buffer`; blocks longer than NMPIPE_MESSAGE_MAX are collected from their messages.
// Returns the message's whole length: when that is above `length`, only `length` bytes were stored and the
// rest is gone. 0: no writer is left; -1: nothing to read, or an error.
[[nodiscard]] ptrdiff_t qxcom_nmpipe_read(int fd, void *buffer, size_t length);

// Writes one message (several for a block above NMPIPE_MESSAGE_MAX). The number of bytes written: less than
// `length` when the pipe was full, -1 when nothing could be written.
[[nodiscard]] ptrdiff_t qxcom_nmpipe_write(int fd, const void *buffer, size_t length);

void qxcom_nmpipe_close(int fd);

// Ends this process's hold and removes the name, unless another live process holds the pipe. Does nothing for
// a name with no pipe.
void qxcom_nmpipe_delete(const char *name);

#endif
