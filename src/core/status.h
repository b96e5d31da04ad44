// Status codes of every operation: 0 or positive is success.
#ifndef CORE_STATUS_H
#define CORE_STATUS_H

constexpr int DNSPROXY_EFAIL = -1;          // a configuration, mapping or socket option step failed
constexpr int DNSPROXY_ERESOURCE = -9001;   // a pipe, table, socket or timer could not be made or used
constexpr int DNSPROXY_EINVALID = -9002;    // invalid request or argument
constexpr int DNSPROXY_ENOMEMORY = -9003;   // no memory, or a cache table could not be made
constexpr int DNSPROXY_EEXISTS = -9004;     // the interface already exists
constexpr int DNSPROXY_ENOTFOUND = -9005;   // no such interface, or no server could be chosen
constexpr int DNSPROXY_ENOTSERVED = -9040;  // the query came in on a device that no rule serves
constexpr int DNSPROXY_ENOSERVER = -9041;   // the forced device has no usable server address
constexpr int DNSPROXY_ENOOUTGOING = -9043; // the forced device is not in the server table

#endif
