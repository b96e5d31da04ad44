// Status codes of every operation: 0 or positive is success. Those that leave the daemon are in the header of
// the client call.
#ifndef CORE_STATUS_H
#define CORE_STATUS_H

#include <dnsproxy/client.h>

constexpr int DNSPROXY_EFAIL = -1;          // a configuration, mapping or socket option step failed
constexpr int DNSPROXY_ENOTSERVED = -9040;  // the query came in on a device that no rule serves
constexpr int DNSPROXY_ENOSERVER = -9041;   // the forced device has no usable server address
constexpr int DNSPROXY_ENOOUTGOING = -9043; // the forced device is not in the server table

#endif
