// Opening and closing the upstream sockets of a line. Nothing else changes the set of descriptors that the
// loop waits for once it serves. Main thread only.
#ifndef IFACE_UPSTREAM_SOCKET_H
#define IFACE_UPSTREAM_SOCKET_H

#include <cstdint>

#include "platform/ipcom_tmo2.h"

// Opens a UDP socket of that address family into *fd. The descriptor, or -1 with errno set.
[[nodiscard]] int upstream_socket_open(int32_t *fd, int family);

// Closes the socket and cancels its idle timer, if it is open; *fd is then -1.
void upstream_socket_close(int32_t *fd, ipcom_tmo2 *idle_timer);

// Whether one was opened or closed since the last call.
bool upstream_sockets_changed();

#endif
