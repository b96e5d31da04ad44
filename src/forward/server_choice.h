// Free choice of servers. In fixed mode a query goes to both servers of the first usable line, which then
// becomes the last in the order, so that lines take turns; in polling mode it goes to every server of every
// line. One query has one identifier and one record, however many servers it goes to. Main thread only.
//
// IPv4: fixed mode passes over lines that are down; with every line down it works as polling. IPv6 does not
// look at link states.
#ifndef FORWARD_SERVER_CHOICE_H
#define FORWARD_SERVER_CHOICE_H

#include <cstddef>
#include <cstdint>
#include <netinet/in.h>

#include "cache/host.h"

// Sends the `length` bytes (2 at least) of the query in `message` to the IPv4 or the IPv6 servers and records
// it. On return the query carries the host's identifier again. 0 when no server was usable, a non-negative
// value after a send (also one that failed), or the negative status of a socket or record that could not be
// made.
int server_choice_send(const host_v4 &host, uint8_t *message, size_t length, uint32_t polling);
int server_choice_send(const host_v6 &host, uint8_t *message, size_t length, uint32_t polling);

// The same with the caller's test of a server slot, `check`, and counter of identifiers, `nextId` (host
// order). `len` is the length of the query in `buf`; `from` and `port` are in network order.
int dnsproxy_server_if_getServerAddress2(int (*check)(uint64_t slot), int len, uint8_t *buf, uint64_t from,
                                         uint16_t port, uint16_t *nextId, uint32_t polling);

// `from` is 0 for a host that asked over IPv6; `client` is "::" for one that asked over IPv4.
int dnsproxy_server_if_getServerAddress2_v6(int (*check)(const char *text), int len, uint8_t *buf,
                                            uint64_t from, const sockaddr_in6 *client, uint16_t port,
                                            uint16_t *nextId, uint32_t polling);

#endif
