// The request path: a host's query from the listen socket to the upstream servers, on the forced or on the
// free path. A query that cannot be sent gets no answer. Main thread only.
#ifndef FORWARD_REQUEST_H
#define FORWARD_REQUEST_H

// Handles one datagram of listenFd (IPv4) or listenFd6 (IPv6). Non-negative, also when the send failed;
// DNSPROXY_ERESOURCE when the receive or the upstream socket failed; DNSPROXY_ENOTSERVED, DNSPROXY_ENOSERVER
// or DNSPROXY_ENOOUTGOING when the query was dropped; or the status of a record that could not be made.
int dnsproxy_listen_socket_recv();
int dnsproxy_listen_socket_recv_v6();

#endif
