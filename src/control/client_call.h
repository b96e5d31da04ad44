// The client call, for a caller that waits less long.
#ifndef CONTROL_CLIENT_CALL_H
#define CONTROL_CLIENT_CALL_H

#include <cstdint>
#include <dnsproxy/client.h>

// dnsproxy_public_dnsServer with its own limit for the wait, in milliseconds.
int dnsproxy_client_request(dnsproxy_public_msg *msg, int64_t wait_ms);

#endif
