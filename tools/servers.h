// The servers that a command line names: at most two of each family, in the order in which they are given.
#ifndef TOOLS_SERVERS_H
#define TOOLS_SERVERS_H

#include <dnsproxy/client.h>

struct server_list {
    uint64_t v4[2]; // as in a message
    sockaddr_in6 v6[2];
    int v4_count;
    int v6_count;
};

// Appends an address in text form. Null, or why it does not go in.
const char *servers_append(server_list *servers, const char *text);

// Puts the servers into a message, with the flags that they need; a family of which none is given is left
// alone.
void servers_to_msg(const server_list *servers, dnsproxy_public_msg *msg);

#endif
