// The DNS servers that the router's network daemon knows for a device, on routers that have one.
#ifndef TOOLS_NETIFD_H
#define TOOLS_NETIFD_H

#include <netinet/in.h>

#include "json.h"

struct netifd {
    char *text; // its answer
    json interfaces;
};

// Asks it; false: there is none. The caller ends with netifd_free in any case.
bool netifd_read(netifd *n);
void netifd_free(netifd *n);

// Calls `each` with every server of every network that is up on the device, IPv4 ones as ::ffff:a.b.c.d,
// until it returns false.
void netifd_servers(const netifd &n, const char *device,
                    bool (*each)(const char *text, const in6_addr &server, void *context), void *context);

#endif
