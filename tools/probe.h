// Asks DNS servers directly, each through the device of its line and from the daemon's group, by which a
// firewall may know it: as the daemon's queries go.
#ifndef TOOLS_PROBE_H
#define TOOLS_PROBE_H

#include "wan_lines.h"

constexpr int SERVERS_MOST = FAMILIES * SLOTS; // of one line

struct probe {
    int line; // its number in the table
    char device[IF_NAMESIZE];
    sockaddr_storage server;
    socklen_t server_length;
    uint32_t mark; // on what is sent; 0: none
    int fd;        // -1 where there is no socket
    int error;     // errno of what kept the question from being asked; 0: it was asked
    bool answered;

    // The server as text.
    void text(char (&address)[INET6_ADDRSTRLEN]) const;
};

// The question that is asked: the name servers of the root zone, which every resolver knows, or the IPv4
// addresses of a name.
struct probe_query {
    uint8_t message[272];
    size_t length;

    // False: no name (RFC 1035, section 2.3.4).
    bool set_name(const char *name);
};

// Fills `probes` with the servers of a line, SERVERS_MOST at most; their number.
int probes_of(const line_table *table, int line, probe *probes);

// Asks all of them, once more after a second, and waits up to three seconds for the answers, whatever they
// say. Ends as soon as all have answered.
void probes_ask(probe *probes, int count, const probe_query *query);

#endif
