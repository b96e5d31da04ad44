// Asks the kernel how a datagram to a server would leave through the device that its socket is tied to.
#ifndef TOOLS_ROUTES_H
#define TOOLS_ROUTES_H

#include <cstdint>
#include <sys/socket.h>

enum class route_fault {
    none,            // or the kernel did not say
    no_gateway,      // the device has no route there; over IPv4 the server is then taken for on-link
    source_specific, // there is one, for queries from an address of the device alone
    marked,          // there is one, but marks that a policy sets lead past it
};

// After `marked`, `*mask` holds the bits of the policy's marks: with all of them set, a datagram is its own.
route_fault route_fault_of(const char *device, const sockaddr_storage &server, uint32_t *mask);

#endif
