// The outgoing lines with their servers, as the running daemon has them, gathered from everything that tells
// of them: the request pipe (servers), the bus (link states) and the last dump (uses). Where no daemon
// answers, as the resolver file gives them: what a daemon that is started would have.
#ifndef TOOLS_WAN_LINES_H
#define TOOLS_WAN_LINES_H

#include <net/if.h>
#include <netinet/in.h>

#include "port53.h"

constexpr int LINES_MOST = 64;

enum class link_state { unknown, up, down };

struct line {
    char device[IF_NAMESIZE];
    char logical[IF_NAMESIZE]; // empty where no file names it
    in_addr ipv4[2];           // 0: none
    in6_addr ipv6[2];          // "::": none
    bool ipv6_known;           // the pipe tells IPv6 servers by logical name only
    link_state state;
    long uses; // queries forced out through it; -1: unknown

    [[nodiscard]] bool has_server() const;
};

struct line_table {
    line lines[LINES_MOST];
    int count;
    int status; // of the daemon's list: negative where no daemon answered
    bool on_bus;

    [[nodiscard]] line *find(const char *device);
    [[nodiscard]] bool has_server() const; // any line
};

// Fills the table. A daemon that does not own the port is not asked: it has given up serving its requests
// too.
void lines_read(line_table *table, const port53 &port);

// Whether the device exists.
bool device_exists(const char *device);

// Calls `each` with every rule of the configuration, until it returns false. 0, or negative when the package
// cannot be read.
struct dnsproxy_rule;
int rules_walk(bool (*each)(const dnsproxy_rule *rule, void *context), void *context);

#endif
