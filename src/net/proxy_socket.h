// The listen sockets on port 53, and the upstream sockets: one per outgoing device and family, tied to the
// device, opened when a query needs it and closed when none has used it for the device's sockTimeout. Main
// thread only.
//
// No socket waits in a send or receive. A report of the wait can be out of date when a descriptor was closed
// and opened again since, and a device with a full queue must not hold up the others.
#ifndef NET_PROXY_SOCKET_H
#define NET_PROXY_SOCKET_H

#include <cstdint>

#include "iface/server_if.h"

// Opens and binds both listen sockets. 0; DNSPROXY_ERESOURCE; DNSPROXY_EFAIL when an option could not be set.
// After a failure the socket of the failed step is closed and its descriptor -1.
[[nodiscard]] int dnsproxy_listen_socket_open();

// Binds to `port` (host order) on every local address; 0 or DNSPROXY_ERESOURCE.
[[nodiscard]] int dnsproxy_socket_bind(int fd, uint16_t port);
[[nodiscard]] int dnsproxy_socket_bind_V6(int fd, uint16_t port);

// Makes sure that the device's upstream socket is open and starts its idle time anew. Non-negative, or
// DNSPROXY_ERESOURCE: then a socket that was not open before is not open.
[[nodiscard]] int dnsproxy_server_socket_check(dnsproxy_server_if *sif);
[[nodiscard]] int dnsproxy_server_socket_check_v6(dnsproxy_server_if *sif);

// Callbacks of the idle timers, given the dnsproxy_server_if; always 0.
int dnsproxy_server_socket_timeout(void *sif);
int dnsproxy_server_socket_timeout_v6(void *sif);

#endif
