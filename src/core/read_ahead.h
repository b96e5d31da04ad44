// The datagrams of the DNS sockets. The loop serves one per socket and pass. Under load one system call takes
// several from a socket; the later ones wait here for their passes. Main thread only.
//
// A socket is read ahead if it was served between the two waits before as well: at low load each datagram is
// read by itself. At most four sockets are read ahead at a time.
#ifndef CORE_READ_AHEAD_H
#define CORE_READ_AHEAD_H

#include <cstddef>
#include <cstdint>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>

#include "core/dns_header.h"

struct dns_datagram {
    uint8_t message[DNSPROXY_MESSAGE_SIZE]; // a header that is cut short ends with zeros
    size_t length;                          // what was longer than the buffer is cut
    union {
        sockaddr_in v4;
        sockaddr_in6 v6;
    } sender;
    const cmsghdr *control; // the first control message; nullptr: none
};

// The next datagram of a ready socket, which the caller may change until the next call. nullptr with errno
// set: the receive failed.
dns_datagram *read_ahead_take(int fd);

// Whether a datagram that was taken stays until the kernel is asked or its socket closed, because more of the
// socket wait here.
bool read_ahead_keeps(const dns_datagram *d);

// Whether datagrams wait here.
bool read_ahead_waits();

// Whether these are all that wait, as far as is known: every socket that was served since the last wait has
// datagrams here, or was found empty.
bool read_ahead_suffices();

// The kernel was asked which sockets are ready.
void read_ahead_waited();

// Adds the sockets with datagrams here to `ready` and returns how many were not in it.
int read_ahead_add(fd_set *ready);

// To be called before a descriptor is closed: drops its datagrams, as the kernel does.
void read_ahead_forget(int fd);

#endif
