// The daemon's numbers, as the bus object "dnsproxy.statistics" gives them. They count from the start of the
// process; a line that was deleted and added again, and a server that was replaced, begin at zero. A number
// that the daemon does not give is json_unknown.
#ifndef TOOLS_STATISTICS_H
#define TOOLS_STATISTICS_H

#include <net/if.h>
#include <netinet/in.h>

#include "bus.h"
#include "json.h"

constexpr int FAMILIES = 2; // IPv4, IPv6
constexpr int SLOTS = 2;
constexpr int TIME_BUCKETS = 15; // up to 1 ms, 2 ms, ... 8192 ms, and longer

// Replies and the times that they took, in microseconds.
struct reply_times {
    uint64_t replies;
    uint64_t total;
    uint64_t smallest;
    uint64_t largest;
    uint64_t histogram[TIME_BUCKETS];
};

struct server_numbers {
    char address[INET6_ADDRSTRLEN]; // empty: no server
    uint64_t sent;
    reply_times times;
};

struct family_numbers {
    uint64_t sent;
    uint64_t failed;
    uint64_t answered; // queries that ended so
    uint64_t expired;
    server_numbers servers[SLOTS];
};

enum class link_state { unknown, up, down };

struct line_numbers {
    char device[IF_NAMESIZE];
    link_state state;
    uint64_t uses;
    family_numbers families[FAMILIES];
};

struct query_numbers {
    uint64_t taken;
    uint64_t refused;
    uint64_t forced;
    uint64_t free;
    uint64_t in_flight;
};

struct statistics {
    char *text;      // the daemon's answer
    uint64_t uptime; // seconds
    query_numbers queries[FAMILIES];
    line_numbers *lines; // in the order in which they are tried
    int count;
};

// Asks the daemon. After `done` the caller ends with statistics_free; else there is nothing to free. An
// answer that is not understood counts as `failed`.
bus_result statistics_read(statistics *s);
void statistics_free(statistics *s);

// The same numbers in memory of their own; false without memory.
bool statistics_copy(statistics *to, const statistics &from);

// The state that a text of the bus stands for.
link_state state_of(json status);

// How many in a thousand, or -1 where that is not known. Never above a thousand.
int share_of(uint64_t part, uint64_t whole);

// Mean, and the time that so many percent of the replies stayed below, in milliseconds; negative: not known.
double mean_ms(const reply_times &times);
double percentile_ms(const reply_times &times, int percent);

// The upper end of a bucket in seconds; the last has none.
double bucket_end_s(int bucket);

#endif
