// The outgoing lines with their servers. Of a running daemon the bus tells all of it, in one call; where it
// does not, the request pipe tells the IPv4 servers (one request, which makes the daemon dump its tables
// once). Where no daemon serves, the resolver file does: what a daemon that is started would have.
#ifndef TOOLS_WAN_LINES_H
#define TOOLS_WAN_LINES_H

#include <net/if.h>
#include <netinet/in.h>

#include "port53.h"
#include "statistics.h"

constexpr int logical_size = 35; // of the longest name that can be mapped, with its NUL

struct line {
    char device[IF_NAMESIZE];
    char logical[logical_size]; // empty where no file names it
    in_addr ipv4[SLOTS];        // 0: none
    in6_addr ipv6[SLOTS];       // "::": none
    bool ipv4_known;
    bool ipv6_known;
    link_state state;
    uint64_t sent;                 // queries that it has sent, or json_unknown
    uint64_t uses;                 // queries forced out through it, or json_unknown
    int answered[FAMILIES][SLOTS]; // share per server in a thousand, or -1

    [[nodiscard]] bool has_server() const;
    [[nodiscard]] const char *name() const { return logical[0] != '\0' ? logical : device; }
};

struct line_table {
    line *lines; // in the order in which they are tried
    int count;
    int capacity;
    uint64_t uptime; // of the daemon in seconds, or json_unknown
    bool known;      // these are the lines of the running daemon
    bus_result bus;  // of the last call
    int pipe_error;  // errno of the request; 0: it was answered or not made

    [[nodiscard]] line *find(const char *device);
    [[nodiscard]] bool has_server() const;    // any line
    [[nodiscard]] bool servers_known() const; // of all lines
};

// Fills an empty table from the running daemon. Only a daemon that owns the port, or may own it, is asked:
// one that does not has given up serving its requests too.
void lines_read(line_table *table, const port53 &port);

// Fills in the logical names that the files give to these lines. Maps each by a shell.
void lines_name(line_table *table);

// Fills an empty table from the files.
void lines_read_files(line_table *table);

void lines_free(line_table *table);

// Whether the device exists.
bool device_exists(const char *device);

// The device of a logical name into `device`, 16 zero bytes; false where there is none. The shell's
// complaints about the zone functions are not shown.
bool device_of(const char *logical, char *device);

// Calls `each` with every rule of the configuration, until it returns false. nullptr, or why the package
// cannot be read, as the store says it; valid until the next call.
struct uci_section;
const char *rules_walk(bool (*each)(uci_section *rule, void *context), void *context);

#endif
