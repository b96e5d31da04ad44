// The event loop of the main thread.
#ifndef DAEMON_EVENT_LOOP_H
#define DAEMON_EVENT_LOOP_H

#include <sys/select.h>

// Opens the request pipe, the listen sockets and the interface monitor, and serves them and the upstream
// sockets for ever. Returns only when its set-up fails, with the status of the step.
int dnsproxyd();

// Adds the loop's sockets and every open upstream socket to `reads`; `*highest` becomes the highest
// descriptor.
void dnsproxy_fdset_build(fd_set *reads, int *highest);

#endif
