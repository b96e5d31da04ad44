// The reply path: upstream replies from the sockets of the outgoing devices back to the hosts. Replies are
// matched by identifier alone. Of several replies to one query only the first good one is relayed, but all of
// them while the latest query was a forced one. Main
// thread only.
#ifndef FORWARD_REPLY_H
#define FORWARD_REPLY_H

#include <cstdint>
#include <sys/select.h>

// Serves each upstream socket in `ready` once, in the table's order, as long as `*count`, the number of ready
// descriptors not handled yet, is above 0; lowers it by one per socket read. Always 0.
int dnsproxy_server_socket_read(const fd_set *ready, int *count);

// Whether a DNS message (4 bytes at least) is a response, by its QR bit: 1 or 0.
int dnsproxy_check_dnspacket(const uint8_t *message);

#endif
